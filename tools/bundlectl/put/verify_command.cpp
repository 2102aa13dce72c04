#include "arguments.h"
#include "bundle_archive.h"
#include "command.h"
#include "exit_status.h"
#include "key.h"
#include "model/files.h"
#include "printable.h"
#include "run.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

using namespace Put;

struct Options {
    std::string source;
    std::string key;
    bool json = false;
};

/// The list of a directory that was packed, with its signature.
Shipped ReadShipped(const std::string& directory)
{
    Shipped shipped;
    const auto text = Model::ReadFileAtMost(directory + "/" + CONTENTS_FILE, Contents::LONGEST_TEXT);
    if (!text) {
        throw Refusal(Printable(directory) + " has no list of what was shipped (" + CONTENTS_FILE +
                      "). bundlectl pack and put make it.");
    }
    shipped.text = *text;
    shipped.contents = ParseContents(shipped.text);
    shipped.signature = Model::ReadFileAtMost(directory + "/" + SIGNATURE_FILE).value_or("");
    return shipped;
}

int RunVerify(const Options& options)
{
    struct stat status {};
    if (::stat(options.source.c_str(), &status) != 0) {
        throw Refusal(Printable(options.source) + ": " + std::strerror(errno) + ".");
    }
    Report report;
    report.verb = "verify";
    const bool isDirectory = S_ISDIR(status.st_mode);
    const Shipped shipped = isDirectory ? ReadShipped(options.source) : CheckArchive(options.source, {});
    if (isDirectory) {
        report.details = Differences(options.source, shipped.contents);
    }
    if (!options.key.empty()) {
        RequireSignature(shipped.text, shipped.signature, options.key);
    }
    const std::size_t count = report.details.size();
    report.outcome = count == 0 ? "good" : "differs";
    report.text = Printable(options.source) +
                  (count == 0 ? " is what was shipped"
                              : " differs from what was shipped in " + std::to_string(count) +
                                    (count == 1 ? " place" : " places")) +
                  (!options.key.empty()        ? ", and its signature is good."
                   : shipped.signature.empty() ? "; it is not signed."
                                               : "; its signature was not checked, because no --key was given.");
    return Tell(report, count == 0 ? EXIT_DONE : EXIT_FAILED, options.json);
}

} // namespace

Action DefineVerify(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument source{"SOURCE", "an archive that bundlectl pack has made, or a bundle's directory", "FILE"};
    source.isRequired = true;
    arguments.Add(source, options->source);
    arguments.Add({"--key", "the public key that must have signed it", "FILE"}, options->key);
    arguments.AddFlag("--json", "print JSON, for programs", options->json);
    return [options] { return Guarded("verify", "", options->json, [&] { return RunVerify(*options); }); };
}
