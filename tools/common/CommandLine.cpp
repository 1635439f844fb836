#include "CommandLine.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace toolsupport {

namespace {

constexpr const char* kDecimalDigits = "0123456789";
constexpr const char* kHexDigits = "0123456789abcdefABCDEF";
// Tells getopt_long's answers for a letterless option apart from its own ('?', ':', 1).
constexpr int kLongOnlyBase = 0x10000;

// "--name" of a long option as typed, without a "=value".
std::string typedName(const char* argument) {
    const char* equals = std::strchr(argument, '=');
    return equals == nullptr ? std::string(argument) : std::string(argument, equals);
}

// getopt_long's tables for `options`: the short option string and the long option records.
struct GetoptTables {
    explicit GetoptTables(const std::vector<OptionSpec>& options) {
        // '-': operands come back in order as code 1; ':': a missing value is told apart from an unknown
        // option.
        shortOptions = "-:";
        for (const OptionSpec& entry : options) {
            const int value = entry.shortName != 0 ? entry.shortName : kLongOnlyBase + entry.code;
            longOptions.push_back(
                {entry.longName, entry.takesValue ? required_argument : no_argument, nullptr, value});
            if (entry.shortName != 0) {
                shortOptions += entry.shortName;
                shortOptions += entry.takesValue ? ":" : "";
            }
        }
        longOptions.push_back({nullptr, 0, nullptr, 0});
    }

    const OptionSpec* find(const std::vector<OptionSpec>& options, int value) const {
        for (const OptionSpec& entry : options) {
            if ((entry.shortName != 0 ? entry.shortName : kLongOnlyBase + entry.code) == value) {
                return &entry;
            }
        }
        return nullptr;
    }

    std::string shortOptions;
    std::vector<option> longOptions;
};

// What getopt_long's ':' (value missing) or '?' (unknown, or a value where none is taken) means, worded
// as the tools word it. `entry` is the option getopt_long names, null for an unknown one; `last` is the
// last argument it stepped over, which for these answers is the offending one or, within a cluster of
// short letters, an earlier one.
std::string complaint(int value, const OptionSpec* entry, const char* last) {
    const bool typedLong = std::strncmp(last, "--", 2) == 0;
    if (value == ':') {
        const std::string name =
            typedLong ? std::string("--") + entry->longName : std::string{'-', entry->shortName};
        return "option '" + name + "' needs a value";
    }
    if (entry != nullptr) {
        // A known option is refused only as "--name=value" when it takes none.
        return "option '--" + std::string(entry->longName) + "' takes no value";
    }
    return "unknown option '" +
           (optopt == 0 ? typedName(last) : std::string{'-', static_cast<char>(optopt)}) + "'";
}

}  // namespace

bool readOptions(int argc, const char* const argv[], const std::vector<OptionSpec>& options,
                 const OptionHandler& handler, std::string& error) {
    const GetoptTables tables(options);
    // getopt_long wants the program name in front and a mutable array; it changes neither the strings
    // nor, with '-' leading the short options, their order.
    std::vector<char*> arguments{const_cast<char*>("")};
    for (int i = 0; i < argc; ++i) {
        arguments.push_back(const_cast<char*>(argv[i]));
    }
    arguments.push_back(nullptr);
    const int count = argc + 1;
    opterr = 0;  // the complaints are the tools' own
    optind = 0;  // 0, not 1: a complete restart of getopt's state for each command line
    for (;;) {
        int index = -1;
        const int value = getopt_long(count, arguments.data(), tables.shortOptions.c_str(),
                                      tables.longOptions.data(), &index);
        if (value == -1) {
            break;
        }
        if (value == 1) {
            if (!handler(kOperand, optarg, optarg, error)) {
                return false;
            }
            continue;
        }
        if (value == ':' || value == '?') {
            error = complaint(value, tables.find(options, optopt),
                              arguments[static_cast<std::size_t>(optind > 0 ? optind - 1 : 0)]);
            return false;
        }
        const OptionSpec* entry = tables.find(options, value);
        const std::string name =
            index >= 0 ? std::string("--") + entry->longName : std::string{'-', entry->shortName};
        if (!handler(entry->code, name, entry->takesValue ? optarg : nullptr, error)) {
            return false;
        }
    }
    // After "--" getopt_long hands back no more operands: they are left at the end.
    for (int i = optind; i < count; ++i) {
        if (!handler(kOperand, arguments[static_cast<std::size_t>(i)], arguments[static_cast<std::size_t>(i)],
                     error)) {
            return false;
        }
    }
    return true;
}

bool parseNumber(const std::string& text, std::uint32_t maximum, std::uint32_t& value) {
    const bool hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char* digits = text.c_str() + (hex ? 2 : 0);
    if (*digits == '\0' || digits[std::strspn(digits, hex ? kHexDigits : kDecimalDigits)] != '\0') {
        return false;
    }
    errno = 0;
    const unsigned long long parsed = std::strtoull(digits, nullptr, hex ? 16 : 10);
    if (errno != 0 || parsed > maximum) {
        return false;
    }
    value = static_cast<std::uint32_t>(parsed);
    return true;
}

std::string invalidNumber(const std::string& text, const std::string& name, std::uint32_t maximum) {
    return "invalid value '" + text + "' for " + name + " (0.." + std::to_string(maximum) + ")";
}

}  // namespace toolsupport
