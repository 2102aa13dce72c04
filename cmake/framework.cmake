# Finds the framework, POCO, and refuses one that the server cannot be built with. So the build does not fail halfway, and
# the message names the way out.
set(FRAMEWORK_LEAST_VERSION 1.9)
set(FRAMEWORK_COMPONENTS Foundation Util XML JSON)

find_package(Poco QUIET COMPONENTS ${FRAMEWORK_COMPONENTS})
if(NOT Poco_FOUND)
    list(JOIN FRAMEWORK_COMPONENTS ", " components)
    message(
        FATAL_ERROR
        "There is no POCO with ${components}. Debian has it in libpoco-dev, which script/install-dependencies installs. "
        "One that was built from its sources is named with -DPoco_DIR=DIR, the directory of its PocoConfig.cmake."
    )
endif()
if(Poco_VERSION VERSION_LESS FRAMEWORK_LEAST_VERSION)
    message(
        FATAL_ERROR
        "POCO ${Poco_VERSION} in ${Poco_DIR} is too old: the server needs ${FRAMEWORK_LEAST_VERSION} or later. Install a "
        "later one, and name it with -DPoco_DIR=DIR, the directory of its PocoConfig.cmake."
    )
endif()

# The framework's own configuration does not tell this.
include(CheckCXXSourceCompiles)
set(CMAKE_REQUIRED_LIBRARIES Poco::Foundation)
check_cxx_source_compiles(
    "#include <Poco/DirectoryWatcher.h>
    int main() { return sizeof(Poco::DirectoryWatcher) > 0 ? 0 : 1; }"
    BUNDLE_SERVER_FRAMEWORK_WATCHES
)
unset(CMAKE_REQUIRED_LIBRARIES)
if(NOT BUNDLE_SERVER_FRAMEWORK_WATCHES)
    unset(BUNDLE_SERVER_FRAMEWORK_WATCHES CACHE) # checked again when another framework is there
    message(
        FATAL_ERROR
        "POCO ${Poco_VERSION} in ${Poco_DIR} has no DirectoryWatcher, with which the server follows its collection: it was "
        "built with POCO_NO_INOTIFY. Build it without that definition, or name another with -DPoco_DIR=DIR, the directory "
        "of its PocoConfig.cmake."
    )
endif()
