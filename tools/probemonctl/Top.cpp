#include "tools/probemonctl/Top.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "tools/probemonctl/Service.h"

namespace probemond::ctl {

namespace {

constexpr size_t kShownSwitches = 5;
constexpr size_t kSparkWidth = 10;

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// "name k=v k=v ..." -> name and the pairs; a bracketed value keeps its blanks.
std::string splitFields(const std::string& line, std::map<std::string, std::string>* fields) {
    std::istringstream in(line);
    std::string name, word;
    in >> name;
    while (in >> word) {
        const size_t eq = word.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = word.substr(0, eq);
        std::string value = word.substr(eq + 1);
        if (!value.empty() && value[0] == '[') {
            while (value.back() != ']' && in >> word) value += " " + word;
        }
        (*fields)[key] = value;
    }
    return name;
}

int toInt(const std::string& s) { return static_cast<int>(strtol(s.c_str(), nullptr, 10)); }

std::string stateOf(std::map<std::string, std::string>& f) {
    if (f["suspended"] == "1") return "suspended";
    if (f["auto"] == "1") return "candidate";
    if (f["running"] == "1") return "probing";
    return "idle";
}

void parseSwitchHeader(const std::string& line, TopSwitches* s) {
    std::map<std::string, std::string> f;
    splitFields("header" + line.substr(line.find(':') + 1), &f);
    s->count = f["count"].empty() ? "0" : f["count"];
    s->lastMsAgo = f["lastMsAgo"].empty() ? "never" : f["lastMsAgo"];
}

// Eight block heights; the frame's largest value is the top.
std::string sparkline(const std::vector<int>& values, int top) {
    static const char* const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    std::string out;
    for (int v : values) {
        const int level = top <= 0 ? 0 : std::clamp(v * 8 / (top + 1), 0, 7);
        out += kBlocks[level];
    }
    out.append(kSparkWidth > values.size() ? kSparkWidth - values.size() : 0, ' ');
    return out;
}

std::string agoText(const std::string& ms) {
    if (ms == "never") return "never";
    char text[32];
    snprintf(text, sizeof(text), "%.1f s ago", toInt(ms) / 1000.0);
    return text;
}

void renderSwitches(std::vector<std::string>* lines, const char* title, const TopSwitches& s) {
    lines->push_back(std::string(title) + ": " + s.count + ", last " + agoText(s.lastMsAgo));
    const size_t from = s.recent.size() > kShownSwitches ? s.recent.size() - kShownSwitches : 0;
    for (size_t i = from; i < s.recent.size(); ++i) lines->push_back("  " + s.recent[i]);
}

}  // namespace

TopFrame parseDump(const std::string& dump) {
    TopFrame frame;
    std::map<std::string, size_t> index;
    enum { kNone, kInterfaces, kProbes, kAuto, kManual, kRestored } section = kNone;
    std::istringstream in(dump);
    std::string line;
    while (std::getline(in, line)) {
        if (startsWith(line, "  ")) {
            std::map<std::string, std::string> f;
            if (section == kInterfaces) {
                TopRow row;
                row.name = splitFields(line, &f);
                row.state = stateOf(f);
                row.server = f["server"];
                row.rtt = toInt(f["rtt"]);
                row.mrtt = toInt(f["mrtt"]);
                std::istringstream h(f["history"].size() >= 2
                                             ? f["history"].substr(1, f["history"].size() - 2)
                                             : "");
                for (int v; h >> v;) row.history.push_back(v);
                index[row.name] = frame.rows.size();
                frame.rows.push_back(row);
            } else if (section == kProbes) {
                auto it = index.find(splitFields(line, &f));
                if (it == index.end()) continue;
                TopRow& row = frame.rows[it->second];
                row.probes = f["made"];
                row.failed = f["failed"];
                row.failPercent = f["historyFailed"];
            } else if (section == kAuto) {
                frame.autoSwitches.recent.push_back(line.substr(2));
            } else if (section == kManual) {
                frame.manualSelections.recent.push_back(line.substr(2));
            } else if (section == kRestored) {
                frame.restorations.recent.push_back(line.substr(2));
            }
            continue;
        }
        section = kNone;
        if (startsWith(line, "interfaces (")) {
            section = kInterfaces;
        } else if (startsWith(line, "probes (")) {
            section = kProbes;
        } else if (startsWith(line, "userSelectIface: ")) {
            frame.userSelect = line.substr(17);
        } else if (startsWith(line, "autoSelectIface: ")) {
            frame.autoSelect = line.substr(17);
        } else if (startsWith(line, "autoSelect: ")) {
            frame.autoEnabled = line.find("enabled=1") != std::string::npos;
        } else if (startsWith(line, "autoSelect switches:")) {
            section = kAuto;
            parseSwitchHeader(line, &frame.autoSwitches);
        } else if (startsWith(line, "manual selections:")) {
            section = kManual;
            parseSwitchHeader(line, &frame.manualSelections);
        } else if (startsWith(line, "restored after platform restarts:")) {
            section = kRestored;
            parseSwitchHeader(line, &frame.restorations);
        }
    }
    return frame;
}

std::vector<std::string> renderTop(const TopFrame& frame) {
    std::vector<std::string> lines;
    int top = 0;
    for (const TopRow& r : frame.rows) {
        for (int v : r.history) top = std::max(top, v);
    }
    char text[256];
    snprintf(text, sizeof(text), "%-12s %-9s %-15s %5s %6s  %-10s %7s %6s %5s", "IFACE", "STATE",
             "SERVER", "RTT", "MEDIAN", "HISTORY", "PROBES", "FAILED", "FAIL%");
    lines.push_back(text);
    for (const TopRow& r : frame.rows) {
        snprintf(text, sizeof(text), "%-12s %-9s %-15s %5d %6d  ", r.name.c_str(),
                 r.state.c_str(), r.server.c_str(), r.rtt, r.mrtt);
        std::string row = text + sparkline(r.history, top);
        snprintf(text, sizeof(text), " %7s %6s %5s", r.probes.c_str(), r.failed.c_str(),
                 r.failPercent.c_str());
        lines.push_back(row + text);
    }
    lines.push_back("");
    lines.push_back("user: " + frame.userSelect + "   auto-select: " +
                    (frame.autoEnabled ? "on" : "off") + "   auto: " + frame.autoSelect);
    renderSwitches(&lines, "auto-select switches", frame.autoSwitches);
    renderSwitches(&lines, "manual selections", frame.manualSelections);
    renderSwitches(&lines, "restored after platform restarts", frame.restorations);
    return lines;
}

namespace {

volatile sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

std::vector<std::string> frameLines(const char* intervalText) {
    std::string dump, error;
    std::vector<std::string> lines;
    if (readDump(&dump, &error)) {
        lines = renderTop(parseDump(dump));
    } else {
        lines.push_back("probemonctl: " + error);
    }
    if (intervalText != nullptr) {
        lines.insert(lines.begin(), std::string("probemond top, every ") + intervalText +
                                            " s; q or Ctrl-C quits");
    }
    return lines;
}

// Puts the terminal back however the loop ends.
class Screen {
public:
    Screen() {
        haveTermios_ = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved_) == 0;
        if (haveTermios_) {
            termios raw = saved_;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            raw.c_cc[VMIN] = 0;
            raw.c_cc[VTIME] = 0;
            tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        }
        fputs("\033[?1049h\033[?25l", stdout);
    }
    ~Screen() {
        fputs("\033[?25h\033[?1049l", stdout);
        fflush(stdout);
        if (haveTermios_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

private:
    termios saved_{};
    bool haveTermios_ = false;
};

// Waits up to ms; false when the user asked to quit.
bool waitForKeys(int ms, bool* stdinOpen) {
    pollfd p{STDIN_FILENO, POLLIN, 0};
    if (poll(&p, *stdinOpen ? 1 : 0, ms) > 0 && (p.revents & (POLLIN | POLLHUP))) {
        char keys[64];
        const ssize_t n = read(STDIN_FILENO, keys, sizeof(keys));
        if (n <= 0) *stdinOpen = false;
        for (ssize_t i = 0; i < n; ++i) {
            if (keys[i] == 'q' || keys[i] == 'Q') return false;
        }
    }
    return gStop == 0;
}

}  // namespace

int runTop(int argc, char** argv) {
    bool once = false;
    double interval = 1.0;
    const char* intervalText = "1";
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--once") == 0) {
            once = true;
        } else if (strcmp(argv[i], "--interval") == 0 && i + 1 < argc) {
            char* end = nullptr;
            intervalText = argv[++i];
            interval = strtod(intervalText, &end);
            if (end == intervalText || *end != '\0' || !(interval >= 0.1 && interval <= 3600)) {
                fprintf(stderr, "probemonctl: --interval takes seconds from 0.1 to 3600\n");
                return 2;
            }
        } else {
            fprintf(stderr, "probemonctl: top takes only --interval SECONDS and --once\n");
            return 2;
        }
    }
    if (once) {
        std::string dump, error;
        if (!readDump(&dump, &error)) {
            fprintf(stderr, "probemonctl: %s\n", error.c_str());
            return 1;
        }
        for (const std::string& l : renderTop(parseDump(dump))) printf("%s\n", l.c_str());
        return 0;
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    bool stdinOpen = true;
    Screen screen;
    do {
        std::string out = "\033[H";
        for (const std::string& l : frameLines(intervalText)) out += l + "\033[K\n";
        out += "\033[J";
        fputs(out.c_str(), stdout);
        fflush(stdout);
    } while (waitForKeys(static_cast<int>(interval * 1000), &stdinOpen));
    return 0;
}

}  // namespace probemond::ctl
