// A folder of endpoints for one test: private, empty at first, gone with its guard. APIPC_DIR names it meanwhile, and
// APCARD_SELF is unset, so that neither a daemon on this machine nor its settings are touched.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace rvk {

class endpoint_folder {
public:
    endpoint_folder()
    {
        char name[] = "/tmp/rvk-endpoints-XXXXXX";
        if (mkdtemp(name) == nullptr) { throw std::runtime_error("no folder below /tmp"); }
        path = name;
        setenv("APIPC_DIR", name, 1);
        unsetenv("APCARD_SELF");
    }
    ~endpoint_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
        unsetenv("APIPC_DIR");
    }
    endpoint_folder(const endpoint_folder&) = delete;
    endpoint_folder& operator=(const endpoint_folder&) = delete;

    [[nodiscard]] std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

} // namespace rvk
