// A private host binder directory for one test binary or case: points
// PROBEMOND_BINDER_DIR at a fresh temporary folder, removes it afterwards.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace probemond::test {

class PrivateBinderDir {
public:
    explicit PrivateBinderDir(const char* prefix = "probemond-binder") {
        std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
        if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
        setenv("PROBEMOND_BINDER_DIR", path_.c_str(), 1);
    }
    ~PrivateBinderDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    PrivateBinderDir(const PrivateBinderDir&) = delete;
    PrivateBinderDir& operator=(const PrivateBinderDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace probemond::test
