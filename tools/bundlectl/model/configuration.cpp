#include "installation.h"

#include "printable.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <Poco/String.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/JSONConfiguration.h>
#include <Poco/Util/LayeredConfiguration.h>
#include <Poco/Util/MapConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <Poco/Util/XMLConfiguration.h>

#include <utility>

namespace Model {

namespace {

using Poco::Util::AbstractConfiguration;
using Configuration = Poco::AutoPtr<AbstractConfiguration>;

constexpr const char DEFAULT_LOADER_DIRECTORY[] = "/usr/app/bin/";

// Chooses the format by the file's ending, like the server's framework.
Configuration Load(const std::string& path)
{
    const std::string ending = Poco::toLower(Poco::Path(path).getExtension());
    if (ending == "ini") {
        return new Poco::Util::IniFileConfiguration(path);
    }
    if (ending == "json") {
        return new Poco::Util::JSONConfiguration(path);
    }
    if (ending == "xml") {
        return new Poco::Util::XMLConfiguration(path);
    }
    if (ending == "properties") {
        return new Poco::Util::PropertyFileConfiguration(path);
    }
    throw Poco::InvalidArgumentException("a configuration's name ends in .ini, .properties, .xml or .json");
}

} // namespace

ServerConfiguration ReadConfiguration(const std::string& path, const std::string& programDirectory)
{
    ServerConfiguration settings;
    try {
        // Layers, because a value may refer to the framework's properties of the program.
        Poco::AutoPtr<Poco::Util::MapConfiguration> application(new Poco::Util::MapConfiguration);
        application->setString("application.dir", Poco::Path(programDirectory).makeDirectory().toString());
        Poco::AutoPtr<Poco::Util::LayeredConfiguration> layers(new Poco::Util::LayeredConfiguration);
        layers->add(application);
        layers->add(Load(path));
        settings.collection = layers->getString("global.bundle_collection_dir");
        settings.loaderDirectory = layers->getString("global.server_submodule_dir", DEFAULT_LOADER_DIRECTORY);
    } catch (const Poco::Exception& e) {
        settings.trouble = Printable(e.displayText());
    }
    return settings;
}

} // namespace Model
