#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "printable.h"
#include "put/bundle_archive.h"
#include "put/key.h"
#include "put/run.h"
#include "put/tree.h"

#include <memory>

namespace {

using namespace Put;

struct Options {
    std::string directory;
    std::string output;
    std::string key;
    bool json = false;
};

int RunPack(const Options& options)
{
    if (!ExistsAt(options.directory + "/BundleManifest.ini")) {
        throw Refusal(Printable(options.directory) + " is no bundle: it has no BundleManifest.ini.");
    }
    const Shipped shipped = Pack(options.directory, options.output, options.key);
    Report report;
    report.verb = "pack";
    report.outcome = shipped.signature.empty() ? "packed" : "signed";
    report.text = Printable(options.output) + " has " + std::to_string(shipped.contents.entries.size()) +
                  " files and folders, " + std::to_string(shipped.contents.Size()) + " bytes, and is " +
                  (shipped.signature.empty() ? "not signed." : "signed.");
    return Tell(report, EXIT_DONE, options.json);
}

int RunKeygen(const Options& options)
{
    const std::string secret = options.output + ".key";
    const std::string open = options.output + ".pub";
    const Keys keys = MakeKeys();
    WriteNewFile(secret, keys.secret, 0600);
    WriteNewFile(open, keys.publicKey, 0644);
    Report report;
    report.verb = "keygen";
    report.outcome = "made";
    report.text =
        "Sign with " + Printable(secret) + ", which must stay secret. Put " + Printable(open) + " on the devices.";
    return Tell(report, EXIT_DONE, options.json);
}

} // namespace

Action DefinePack(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument directory{"DIR", "the bundle's directory", "DIR"};
    directory.isRequired = true;
    arguments.Add(directory, options->directory);
    Argument output{"-o,--output", "the archive, whose name ends in .tar.gz by custom", "FILE"};
    output.isRequired = true;
    arguments.Add(output, options->output);
    arguments.Add({"--key", "the secret key to sign with", "FILE"}, options->key);
    arguments.AddFlag("--json", "print JSON, for programs", options->json);
    return [options] { return Guarded("pack", "", options->json, [&] { return RunPack(*options); }); };
}

Action DefineKeygen(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument name{"NAME", "what the files' names begin with: NAME.key and NAME.pub"};
    name.isRequired = true;
    arguments.Add(name, options->output);
    arguments.AddFlag("--json", "print JSON, for programs", options->json);
    return [options] { return Guarded("keygen", "", options->json, [&] { return RunKeygen(*options); }); };
}
