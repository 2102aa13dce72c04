#include "unit/watcher/ways.h"

#include <cstdlib>
#include <string>

std::ostream& operator<<(std::ostream& stream, const Way& way)
{
    return stream << way.name;
}

bool HasTool(const Way& way)
{
    return std::system((std::string("command -v ") + way.tool + " >/dev/null").c_str()) == 0;
}

std::vector<Way> WaysOfComing()
{
    return {Way{"Copying", "cp -r \"$ASIDE\"/radio \"$COLLECTION\"/"},
            Way{"CopyingWithItsAttributes", "cp -a \"$ASIDE\"/radio \"$COLLECTION\"/"},
            Way{"Moving", "mv \"$ASIDE\"/radio \"$COLLECTION\"/radio"},
            Way{"MovingAFreshCopy", "cp -r \"$ASIDE\"/radio \"$ASIDE\"/new && mv \"$ASIDE\"/new "
                                    "\"$COLLECTION\"/radio"},
            Way{"MakingAnEmptyDirectory", "mkdir \"$COLLECTION\"/radio"},
            Way{"Unpacking", "tar -xf \"$ASIDE\"/radio.tar -C \"$COLLECTION\""},
            Way{"LinkingToIt", "ln -s \"$ASIDE\"/radio \"$COLLECTION\"/radio"},
            Way{"Mirroring", "rsync -a \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"},
            Way{"MirroringWithoutItsAttributes", "rsync -r \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"},
            Way{"MirroringWithDelayedUpdates", "rsync -a --delay-updates \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"}};
}

std::vector<Way> WaysOfGoing()
{
    return {Way{"Removing", "rm -rf \"$COLLECTION\"/radio"},
            Way{"MovingItAway", "rm -rf \"$ASIDE\"/gone; mv \"$COLLECTION\"/radio \"$ASIDE\"/gone"}};
}

std::vector<Way> WaysOfChanging()
{
    return {
        Way{"EditingTheManifestInPlace", "echo '; new' >> \"$COLLECTION\"/radio/BundleManifest.ini"},
        Way{"EditingTheManifestAsEditorsDo", "sed -i s/radio/opera/ \"$COLLECTION\"/radio/BundleManifest.ini"},
        Way{"CopyingOverTheManifest", "cp \"$ASIDE\"/radio/BundleManifest.ini \"$COLLECTION\"/radio/"},
        Way{"CopyingOverTheManifestWithItsTime", "cp -p \"$ASIDE\"/radio/BundleManifest.ini \"$COLLECTION\"/radio/"},
        Way{"MovingOverTheManifest", "mv \"$ASIDE\"/radio/BundleManifest.ini \"$COLLECTION\"/radio/"},
        Way{"WritingAsManyBytesAtTheSameTime",
            "cd \"$COLLECTION\"/radio && touch -r BundleManifest.ini \"$ASIDE\"/time && "
            "printf h | dd of=BundleManifest.ini bs=1 seek=1 conv=notrunc status=none && "
            "touch -r \"$ASIDE\"/time BundleManifest.ini"},
        Way{"TouchingTheManifest", "touch \"$COLLECTION\"/radio/BundleManifest.ini"},
        Way{"RemovingTheManifest", "rm \"$COLLECTION\"/radio/BundleManifest.ini"},
        Way{"TouchingTheDirectory", "touch \"$COLLECTION\"/radio"},
        Way{"TouchingTheDirectoryIntoThePast", "touch -d 2001-01-01 \"$COLLECTION\"/radio"},
        Way{"AddingAFile", "echo > \"$COLLECTION\"/radio/README"},
        Way{"AddingAFolder", "mkdir \"$COLLECTION\"/radio/skins"},
        Way{"AddingAFileInBin", "echo > \"$COLLECTION\"/radio/bin/scand"},
        Way{"AddingAFileInScript", "echo > \"$COLLECTION\"/radio/script/update.sh"},
        Way{"ReplacingAFileInBin", "echo > \"$ASIDE\"/x && mv \"$ASIDE\"/x \"$COLLECTION\"/radio/bin/tunerd"},
        Way{"ReplacingAFileInScript", "echo > \"$ASIDE\"/x && mv \"$ASIDE\"/x \"$COLLECTION\"/radio/script/install.sh"},
        Way{"EditingAScriptAsEditorsDo", "sed -i s/sh/ash/ \"$COLLECTION\"/radio/script/install.sh"},
        Way{"RemovingAFileInBin", "rm \"$COLLECTION\"/radio/bin/tunerd"},
        Way{"RemovingAFileInScript", "rm \"$COLLECTION\"/radio/script/install.sh"},
        Way{"RemovingBin", "rm -r \"$COLLECTION\"/radio/bin"},
        Way{"ChangingManyFiles", "cd \"$COLLECTION\"/radio && for i in 1 2 3 4 5 6 7 8 9; do echo > $i; echo > bin/$i; "
                                 "echo > script/$i; echo >> BundleManifest.ini; done"},
        Way{"ReplacingItByAnother",
            "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/radio \"$COLLECTION\"/radio"},
        Way{"ReplacingItByACopy", "rm -rf \"$COLLECTION\"/radio && cp -a \"$ASIDE\"/radio \"$COLLECTION\"/"},
        Way{"MovingItAwayAndBack",
            "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/old \"$COLLECTION\"/radio"},
        Way{"CopyingOverIt", "cp -r \"$ASIDE\"/radio \"$COLLECTION\"/"},
        Way{"Mirroring", "rsync -a \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"},
        Way{"MirroringWithDelayedUpdates", "rsync -a --delay-updates \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"},
        Way{"MirroringInPlace", "rsync -a --inplace \"$ASIDE\"/radio \"$COLLECTION\"/", "rsync"}};
}

std::vector<Way> WaysOfWriting()
{
    return {Way{"AddingAFileInAFolderOfItsOwn", "echo > \"$COLLECTION\"/radio/log/today"},
            Way{"WritingToAFileInAFolderOfItsOwn", "echo 1 >> \"$COLLECTION\"/radio/data/stations"},
            Way{"RemovingAFileInAFolderOfItsOwn", "rm \"$COLLECTION\"/radio/data/stations"},
            Way{"AddingAFolderBelowAFolderOfItsOwn", "mkdir -p \"$COLLECTION\"/radio/data/a/b/c"},
            // A running program is not overwritten in place, and a program that is half written would be started.
            Way{"OverwritingAProgramInPlace", "echo new > \"$COLLECTION\"/radio/bin/tunerd"},
            Way{"OverwritingAScriptInPlace", "echo new > \"$COLLECTION\"/radio/script/install.sh"},
            Way{"ReadingIt", "cat \"$COLLECTION\"/radio/BundleManifest.ini \"$COLLECTION\"/radio/bin/* "
                             ">/dev/null; ls -lR \"$COLLECTION\" > /dev/null"}};
}
