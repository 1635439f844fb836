#include "SimOptions.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace modulesim {

namespace {

constexpr std::uint32_t kMaxDelayMs = 60000;
constexpr std::uint32_t kMaxTrafficRate = 20000;  // well above a 1 Mbit/s bus's capacity
constexpr std::uint32_t kMaxBitrate = 1000000;    // the fastest classic CAN bus
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
    "      --bitrate BPS         keep the timing of a bus of BPS bit/s (1..1000000): every reply\n"
    "                            goes out once the request and the reply would have been on that\n"
    "                            bus (67 + 8n bits per extended frame of n bytes, no stuff bits)\n"
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

enum OptionCode {
    kHelp,
    kInterface,
    kAddress,
    kIdentifier,
    kModes,
    kImage,
    kFlashSize,
    kOnce,
    kVerbose,
    kSilent,
    kNoErase,
    kDropAck,
    kDropAckAlways,
    kDelay,
    kWrongData,
    kTraffic,
    kBitrate,
};

const std::vector<toolsupport::OptionSpec> kOptions = {
    {"help", 'h', false, kHelp},
    {"interface", 'i', true, kInterface},
    {"address", 0, true, kAddress},
    {"identifier", 0, true, kIdentifier},
    {"modes", 0, true, kModes},
    {"image", 0, true, kImage},
    {"flash-size", 0, true, kFlashSize},
    {"once", 0, false, kOnce},
    {"verbose", 'v', false, kVerbose},
    {"silent", 0, false, kSilent},
    {"no-erase", 0, false, kNoErase},
    {"drop-ack", 0, true, kDropAck},
    {"drop-ack-always", 0, true, kDropAckAlways},
    {"delay", 0, true, kDelay},
    {"wrong-data", 0, true, kWrongData},
    {"traffic", 0, true, kTraffic},
    {"bitrate", 0, true, kBitrate},
};

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

bool takeNumber(const std::string& name, const char* value, std::uint32_t maximum, std::uint32_t& number,
                std::string& error) {
    if (!toolsupport::parseNumber(value, maximum, number)) {
        error = toolsupport::invalidNumber(value, name, maximum);
        return false;
    }
    return true;
}

// Options with a number: the value is checked against its range, then against the option's own rule.
bool takeNumberOption(SimSettings& settings, int code, const std::string& name, const char* value,
                      std::string& error) {
    ModuleFaults& faults = settings.module.faults;
    std::uint32_t number = 0;
    switch (code) {
        case kAddress:
            if (!takeNumber(name, value, UINT8_MAX, number, error)) {
                return false;
            }
            settings.module.address = static_cast<std::uint8_t>(number);
            return true;
        case kIdentifier:
            return takeNumber(name, value, UINT32_MAX, settings.module.identifier, error);
        case kFlashSize:
            if (!takeNumber(name, value, kMaxFlashKiB, number, error)) {
                return false;
            }
            if (number == 0 || number % kPageKiB != 0) {
                error = "invalid value '" + std::string(value) + "' for --flash-size (a multiple of 16 KiB)";
                return false;
            }
            settings.module.flashPages = number / kPageKiB;
            return true;
        case kDropAck:
        case kDropAckAlways:
            if (!takeNumber(name, value, UINT32_MAX, number, error)) {
                return false;
            }
            if (number == 0) {
                error = "option '" + name + "' counts from 1";
                return false;
            }
            faults.dropAck = number;
            faults.dropAckAlways = code == kDropAckAlways;
            return true;
        case kDelay:
            return takeNumber(name, value, kMaxDelayMs, faults.replyDelayMs, error);
        case kBitrate:
            if (!takeNumber(name, value, kMaxBitrate, settings.runner.bitrate, error)) {
                return false;
            }
            if (settings.runner.bitrate == 0) {
                error = "invalid value '" + std::string(value) + "' for --bitrate (1..1000000)";
                return false;
            }
            return true;
        default:
            return takeNumber(name, value, kMaxTrafficRate, settings.runner.trafficRate, error);
    }
}

bool takeOption(SimSettings& settings, int code, const std::string& name, const char* value,
                std::string& error) {
    ModuleFaults& faults = settings.module.faults;
    switch (code) {
        case toolsupport::kOperand:
            error = "unexpected argument '" + name + "'";
            return false;
        case kInterface:
            settings.interfaceName = value;
            return true;
        case kModes:
            if (!parseModes(value, settings.module.modes)) {
                error = "invalid mode list '" + std::string(value) +
                        "' (iso, mtcan, new, global, comma-separated)";
                return false;
            }
            return true;
        case kImage:
            if (*value == '\0') {
                error = "option '--image' needs a file name";
                return false;
            }
            settings.runner.imagePath = value;
            return true;
        case kWrongData:
            if (!parseWrongData(value, faults.wrongData)) {
                error =
                    "invalid value '" + std::string(value) + "' for --wrong-data (search, erase, ack or all)";
                return false;
            }
            return true;
        case kOnce:
            settings.runner.once = true;
            return true;
        case kVerbose:
            settings.runner.verbose = true;
            return true;
        case kSilent:
            faults.silent = true;
            return true;
        case kNoErase:
            faults.ignoreErase = true;
            return true;
        default:
            return takeNumberOption(settings, code, name, value, error);
    }
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
    bool help = false;
    const auto handle = [&settings, &help](int code, const std::string& name, const char* value,
                                           std::string& complaint) {
        if (code == kHelp) {
            help = true;
            return false;
        }
        return takeOption(settings, code, name, value, complaint);
    };
    if (!toolsupport::readOptions(argc, argv, kOptions, handle, error)) {
        return help ? ParseOutcome::Help : ParseOutcome::Error;
    }
    if (settings.interfaceName.empty()) {
        error = "no CAN interface given (--interface NAME)";
        return ParseOutcome::Error;
    }
    return ParseOutcome::Run;
}

}  // namespace modulesim
