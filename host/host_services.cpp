#include "host_services.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "progress.h"
#include "zotypes.h"

namespace {

thread_local DeadlockVictim* currentVictim = nullptr;

constexpr std::string_view DeadlockText = "Deadlock detected.";
constexpr std::string_view FalseAlarmText = "Deadlock: false alarm.";
constexpr std::string_view LoweringText = "Implicit lowering writer -> reader.";

// A text of several lines becomes one. No allocation: it is written while the library holds locks.
class OneLine {
public:
    __attribute__((format(printf, 2, 0))) OneLine(char const* format, std::va_list values) {
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): both callers have begun it
        std::vsnprintf(text.data(), text.size(), format, values);
        std::size_t end = std::string_view(text.data()).size();
        while (end > 0 && text[end - 1] == '\n') text[--end] = '\0';
        for (char& c : text) {
            if (c == '\n') c = ' ';
        }
    }

    char const* Text() const { return text.data(); }
    bool BeginsWith(std::string_view start) const {
        return std::string_view(text.data()).substr(0, start.size()) == start;
    }

private:
    std::array<char, 1200> text{};
};

}  // namespace

VictimScope::VictimScope(DeadlockVictim& victim) {
    currentVictim = &victim;
}

VictimScope::~VictimScope() {
    currentVictim = nullptr;
}

int HostConfig::ReadValue(char const* key, int* out, char const* const* sectionPath) {
    bool const inDebug = sectionPath[0] != nullptr && std::string_view(sectionPath[0]) == "debug";
    bool const isConsole = inDebug && std::string_view(key) == "ZOVAConsole";
    bool const isFlags = inDebug && std::string_view(key) == "mode";
    if (isFlags && flags.has_value()) {
        *out = static_cast<int>(*flags);
        return 0;
    }
    bool const tracing = flags.value_or(0) != 0;
    bool const consoleForced = isConsole && tracing;
    if (!consoleForced && user != nullptr && user->ReadValue(key, out, sectionPath) == 0) return 0;
    if (!isConsole) return ZoNotFound;
    *out = 1;
    return 0;
}

int HostLog::Printf(int level, char const* format, ...) {
    std::va_list values;
    va_start(values, format);
    OneLine const line(format, values);
    va_end(values);
    if (line.BeginsWith(FalseAlarmText)) ++falseAlarms;
    EraseProgressBar();
    return std::fprintf(stderr, "log, level %d: %s\n", level, line.Text());
}

unsigned int HostMessages::Show(int, unsigned int, char const* format, ...) {
    std::va_list values;
    va_start(values, format);
    OneLine const line(format, values);
    va_end(values);
    if (line.BeginsWith(LoweringText)) {
        ++lowerings;
        return ZoAnswerAbort;
    }
    EraseProgressBar();
    std::fprintf(stderr, "message: %s\n", line.Text());
    if (line.BeginsWith(DeadlockText)) {
        ++deadlocks;
        if (currentVictim != nullptr) currentVictim->GiveWay();
    }
    return 0;
}

HostServices::HostServices(std::optional<ZoUInt32> debugFlags)
    : config(ZoDefaultConfiguration(), debugFlags),
      previousConfig(ZoSetDefaultConfig(&config)),
      previousLog(ZoSetSystemLog(&log)),
      previousMessages(ZoSetMessageService(&messages)) {}

HostServices::~HostServices() {
    ZoSetMessageService(previousMessages);
    ZoSetSystemLog(previousLog);
    ZoSetDefaultConfig(previousConfig);
}
