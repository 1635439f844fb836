#include "SimOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace modulesim {

namespace {

constexpr std::uint32_t kMaxDelayMs = 60000;
constexpr std::uint32_t kMaxTrafficRate = 20000;  // well above a 1 Mbit/s bus's capacity
constexpr std::uint32_t kPageKiB = FlashImage::kPageSize / 1024;
constexpr std::uint32_t kMaxFlashKiB = 65536 * kPageKiB;  // every page a 16-bit page number reaches

const char* const kUsage =
    "Usage: varnoch-module-sim --interface NAME [OPTIONS]\n"
    "\n"
    "Plays a control module's CAN bootloader for the varnoch flashing daemon: answers its search,\n"
    "erase, page select, data and end requests, keeps the flash image the upload writes and saves\n"
    "it when the upload ends. Runs until SIGINT or SIGTERM.\n"
    "\n"
    "Options:\n"
    "  -i, --interface NAME      SocketCAN interface to serve (can0, vcan0, ...); required\n"
    "      --address A           address answered in \"ISO Style\" searches, 0..255 (default 0x26)\n"
    "      --identifier I        identifier answered in \"MT CAN\" searches (default 0x12345678)\n"
    "      --modes LIST          search modes answered, comma-separated from iso, mtcan, new,\n"
    "                            global (default: all)\n"
    "      --image FILE          where an ended upload's image is saved (default module-image.bin):\n"
    "                            the bytes from the lowest to the highest written address, unwritten\n"
    "                            gaps as 0xFF; FILE.range holds one line \"0xLOWEST 0xHIGHEST\" (both\n"
    "                            inclusive) or \"empty\"\n"
    "      --flash-size KIB      flash an upload may write, in KiB, a multiple of 16 (default 4096)\n"
    "      --once                exit after one upload has ended and been finished\n"
    "  -v, --verbose             print every frame received and every reply sent\n"
    "  -h, --help                show this text\n"
    "\n"
    "Faults:\n"
    "      --silent              never answer\n"
    "      --no-erase            answer the search but never the erase\n"
    "      --drop-ack N          withhold the Nth acknowledgement after the erase once (1 = first);\n"
    "                            its repeat is answered\n"
    "      --drop-ack-always N   withhold the Nth acknowledgement every time\n"
    "      --delay MS            send every reply MS milliseconds late (0..60000)\n"
    "      --wrong-data WHAT     answer with a wrong last data byte; WHAT is search, erase, ack or\n"
    "                            all (comma-separated or repeated)\n"
    "      --traffic RATE        add RATE unrelated frames per second to the bus (0..20000)\n"
    "\n"
    "Numbers are decimal or 0x-prefixed hexadecimal.\n"
    "Exit status: 0 when stopped by a signal or after --once; 1 on an error (bad option, no CAN\n"
    "support, no such interface, the bus failing).\n";

// Decimal or 0x-prefixed hexadecimal, no sign, nothing trailing, at most `maximum`.
bool parseNumber(const char* text, std::uint32_t maximum, std::uint32_t& value) {
    const bool hex = std::strncmp(text, "0x", 2) == 0 || std::strncmp(text, "0X", 2) == 0;
    const char* digits = hex ? text + 2 : text;
    if (*digits == '\0' || std::strchr("+- \t", *digits) != nullptr) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = std::strtoull(digits, &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || parsed > maximum) {
        return false;
    }
    value = static_cast<std::uint32_t>(parsed);
    return true;
}

bool parseModes(const std::string& list, std::uint8_t& modes) {
    modes = 0;
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t comma = std::min(list.find(',', start), list.size());
        const std::string name = list.substr(start, comma - start);
        std::int32_t mode = 0;
        if (!CANFlasher::modeFromOptionName(name, mode)) {
            return false;
        }
        modes |= modeBit(mode);
        start = comma + 1;
    }
    return true;
}

bool parseWrongData(const std::string& list, std::uint8_t& bits) {
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t comma = std::min(list.find(',', start), list.size());
        const std::string name = list.substr(start, comma - start);
        if (name == "search") {
            bits |= WrongSearch;
        } else if (name == "erase") {
            bits |= WrongErase;
        } else if (name == "ack") {
            bits |= WrongAck;
        } else if (name == "all") {
            bits |= WrongAll;
        } else {
            return false;
        }
        start = comma + 1;
    }
    return true;
}

}  // namespace

const char* simUsage() {
    return kUsage;
}

std::string modeList(std::uint8_t modes) {
    std::string list;
    for (std::int32_t mode = CANFlasher::ModeIsoStyle; mode <= CANFlasher::ModeGlobal; ++mode) {
        if ((modes & modeBit(mode)) != 0) {
            list += list.empty() ? "" : ",";
            list += CANFlasher::modeOptionName(mode);
        }
    }
    return list;
}

ParseOutcome parseSimArguments(int argc, const char* const argv[], SimSettings& settings,
                               std::string& error) {
    ModuleConfig& module = settings.module;
    ModuleFaults& faults = module.faults;
    const struct {
        const char* shortName;
        const char* longName;
        bool* flag;
    } switches[] = {
        {"", "--once", &settings.runner.once},
        {"-v", "--verbose", &settings.runner.verbose},
        {"", "--silent", &faults.silent},
        {"", "--no-erase", &faults.ignoreErase},
    };
    for (int i = 0; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        bool hasValue = false;
        const std::size_t equals = option.find('=');
        if (option.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.erase(equals);
            hasValue = true;
        }
        // Takes the option's value from "--name=value" or the next argument.
        const auto takeValue = [&]() {
            if (hasValue) {
                return true;
            }
            if (i + 1 >= argc) {
                error = "option '" + option + "' needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };
        const auto takeNumber = [&](std::uint32_t maximum, std::uint32_t& number) {
            if (!takeValue()) {
                return false;
            }
            if (!parseNumber(value.c_str(), maximum, number)) {
                error =
                    "invalid value '" + value + "' for " + option + " (0.." + std::to_string(maximum) + ")";
                return false;
            }
            return true;
        };
        bool isSwitch = false;
        for (const auto& entry : switches) {
            if ((*entry.shortName != '\0' && option == entry.shortName) || option == entry.longName) {
                *entry.flag = true;
                isSwitch = true;
            }
        }
        if (isSwitch) {
            if (hasValue) {
                error = "option '" + option + "' takes no value";
                return ParseOutcome::Error;
            }
            continue;
        }

        std::uint32_t number = 0;
        if (option == "-h" || option == "--help") {
            return ParseOutcome::Help;
        } else if (option == "-i" || option == "--interface") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            settings.interfaceName = value;
        } else if (option == "--address") {
            if (!takeNumber(0xFF, number)) {
                return ParseOutcome::Error;
            }
            module.address = static_cast<std::uint8_t>(number);
        } else if (option == "--identifier") {
            if (!takeNumber(0xFFFFFFFF, module.identifier)) {
                return ParseOutcome::Error;
            }
        } else if (option == "--modes") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            if (!parseModes(value, module.modes)) {
                error = "invalid mode list '" + value + "' (iso, mtcan, new, global, comma-separated)";
                return ParseOutcome::Error;
            }
        } else if (option == "--image") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            if (value.empty()) {
                error = "option '--image' needs a file name";
                return ParseOutcome::Error;
            }
            settings.runner.imagePath = value;
        } else if (option == "--flash-size") {
            if (!takeNumber(kMaxFlashKiB, number)) {
                return ParseOutcome::Error;
            }
            if (number == 0 || number % kPageKiB != 0) {
                error = "invalid value '" + value + "' for --flash-size (a multiple of 16 KiB)";
                return ParseOutcome::Error;
            }
            module.flashPages = number / kPageKiB;
        } else if (option == "--drop-ack" || option == "--drop-ack-always") {
            if (!takeNumber(0xFFFFFFFF, number)) {
                return ParseOutcome::Error;
            }
            if (number == 0) {
                error = "option '" + option + "' counts from 1";
                return ParseOutcome::Error;
            }
            faults.dropAck = number;
            faults.dropAckAlways = option == "--drop-ack-always";
        } else if (option == "--delay") {
            if (!takeNumber(kMaxDelayMs, faults.replyDelayMs)) {
                return ParseOutcome::Error;
            }
        } else if (option == "--wrong-data") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            if (!parseWrongData(value, faults.wrongData)) {
                error = "invalid value '" + value + "' for --wrong-data (search, erase, ack or all)";
                return ParseOutcome::Error;
            }
        } else if (option == "--traffic") {
            if (!takeNumber(kMaxTrafficRate, settings.runner.trafficRate)) {
                return ParseOutcome::Error;
            }
        } else if (!option.empty() && option[0] == '-') {
            error = "unknown option '" + option + "'";
            return ParseOutcome::Error;
        } else {
            error = "unexpected argument '" + option + "'";
            return ParseOutcome::Error;
        }
    }
    if (settings.interfaceName.empty()) {
        error = "no CAN interface given (--interface NAME)";
        return ParseOutcome::Error;
    }
    return ParseOutcome::Run;
}

}  // namespace modulesim
