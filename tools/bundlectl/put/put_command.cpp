#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "installer.h"
#include "run.h"

#include <memory>

namespace {

int RunPut(const Put::InstallOptions& options)
{
    const Put::Store store(Put::CollectionOf(options.common.choice), Put::Store::CHANGE);
    const Put::StoreLock lock = Put::LockStore(store, "put " + options.source, options.common);
    return Put::Installer(store, options).Put();
}

} // namespace

Action DefinePut(Arguments& arguments)
{
    const auto options = std::make_shared<Put::InstallOptions>();
    Argument source{"SOURCE", "an archive that bundlectl pack has made, or a bundle's directory", "FILE"};
    source.isRequired = true;
    arguments.Add(source, options->source);
    arguments.Add({"--key", "the public key that must have signed it", "FILE"}, options->key);
    arguments.Add({"--directory", "the name of its directory in the collection, when it is new", "NAME"},
                  options->directory);
    Argument soak{"--soak", "how long its items must live", "TIME", Put::FaultOfSpan};
    soak.standard = options->soak;
    arguments.Add(soak, options->soak);
    Argument keep{"--keep", "how many former versions to keep", "N"};
    keep.standard = "3";
    arguments.Add(keep, options->keep, 0, 1000);
    arguments.AddFlag("--force", "put it although lint finds errors", options->force);
    Put::AddCommonOptions(arguments, options->common);
    return [options] { return Put::Guarded("put", "", options->common.json, [&] { return RunPut(*options); }); };
}
