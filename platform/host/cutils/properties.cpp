// Host stand-in for the platform's system properties: a key=value file named
// by PROBEMOND_PROPERTY_FILE. Editing the file is the host's setprop; the file
// is re-read whenever it changed, so a running daemon sees the new value at
// its next read, as on a device.
#include <cutils/properties.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace {

constexpr const char* kFileVariable = "PROBEMOND_PROPERTY_FILE";

struct FileIdentity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime = {0, 0};

    bool operator==(const FileIdentity& o) const {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
               mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

struct Store {
    std::mutex lock;
    std::string path;
    FileIdentity seen;
    bool loaded = false;
    std::map<std::string, std::string> values;
};

Store& store() {
    static Store* s = new Store();  // never destroyed: threads may read at exit
    return *s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

FileIdentity identify(const std::string& path) {
    FileIdentity id;
    struct stat st;
    if (!path.empty() && stat(path.c_str(), &st) == 0) {
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        id.size = st.st_size;
        id.mtime = st.st_mtim;
    }
    return id;
}

std::map<std::string, std::string> parse(const std::string& path) {
    std::map<std::string, std::string> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = trim(line.substr(0, eq));
        if (key.empty()) continue;
        out[key] = line.substr(eq + 1);
    }
    return out;
}

// Brings the cache up to date with the file. Caller holds the store lock.
void refresh(Store& s) {
    const char* env = getenv(kFileVariable);
    std::string path = env ? env : "";
    FileIdentity id = identify(path);
    if (s.loaded && path == s.path && id == s.seen) return;
    s.path = path;
    s.seen = id;
    s.loaded = true;
    s.values = id.exists ? parse(path) : std::map<std::string, std::string>();
}

int copyOut(char* value, const char* text) {
    size_t n = strnlen(text, PROPERTY_VALUE_MAX - 1);
    memcpy(value, text, n);
    value[n] = '\0';
    return static_cast<int>(n);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return -1;
    if (key != nullptr) {
        Store& s = store();
        std::lock_guard<std::mutex> g(s.lock);
        refresh(s);
        auto it = s.values.find(key);
        if (it != s.values.end() && !it->second.empty()) return copyOut(value, it->second.c_str());
    }
    if (default_value != nullptr) return copyOut(value, default_value);
    value[0] = '\0';
    return 0;
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0' || strchr(key, '=') || strchr(key, '\n')) return -1;
    if (value == nullptr) value = "";
    if (strlen(value) >= PROPERTY_VALUE_MAX || strchr(value, '\n')) return -1;
    const char* env = getenv(kFileVariable);
    if (env == nullptr || *env == '\0') return -1;
    std::string path = env;

    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    // Rewrite line by line so comments and other keys survive.
    std::ifstream in(path);
    std::ostringstream out;
    std::string line;
    bool replaced = false;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        std::string t = trim(line);
        if (!t.empty() && t[0] != '#' && eq != std::string::npos && trim(line.substr(0, eq)) == key) {
            if (!replaced) out << key << '=' << value << '\n';
            replaced = true;
            continue;
        }
        out << line << '\n';
    }
    if (!replaced) out << key << '=' << value << '\n';
    in.close();

    std::string tmp = path + ".tmp." + std::to_string(getpid());
    FILE* f = fopen(tmp.c_str(), "we");
    if (f == nullptr) return -1;
    const std::string data = out.str();
    bool ok = fwrite(data.data(), 1, data.size(), f) == data.size();
    ok = (fflush(f) == 0) && ok;
    ok = (fclose(f) == 0) && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    s.loaded = false;  // force a re-read even if stat looks the same
    return 0;
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") == 0) return default_value;
    const std::string v = buf;
    if (v == "1" || v == "true" || v == "y" || v == "yes" || v == "on") return 1;
    if (v == "0" || v == "false" || v == "n" || v == "no" || v == "off") return 0;
    return default_value;
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") == 0) return default_value;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(buf, &end, 0);
    if (errno != 0 || end == buf || *end != '\0') return default_value;
    return v;
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    int64_t v = property_get_int64(key, default_value);
    if (v < INT32_MIN || v > INT32_MAX) return default_value;
    return static_cast<int32_t>(v);
}
