#include "lab/wrappers/AllowList.h"

#include <fstream>

namespace probemond::lab {
namespace {
constexpr char kSuffix[] = "-wrapper-1.0";
}  // namespace

std::string wrapperTool(const std::string& self) {
    const std::string name = self.substr(self.rfind('/') + 1);
    const size_t n = name.size(), suffix = sizeof(kSuffix) - 1;
    if (n <= suffix || name.compare(n - suffix, suffix, kSuffix) != 0) return "";
    return name.substr(0, n - suffix);
}

std::string wrapperText(const std::string& tool, const std::vector<std::string>& args) {
    std::string text = "/system/bin/" + tool;
    for (const auto& a : args) text += " " + a;
    return text;
}

bool AllowList::load(const std::string& path) {
    std::ifstream in(path);
    if (!in) return false;
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#') patterns_.emplace_back(line, std::regex::extended);
    return true;
}

bool AllowList::allows(const std::string& text) const {
    for (const auto& p : patterns_)
        if (std::regex_search(text, p)) return true;
    return false;
}

}  // namespace probemond::lab
