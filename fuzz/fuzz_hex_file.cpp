// Fuzz target: a whole file through the hex loader, as startUpload loads it. Whatever the file holds,
// every message must be one the module can take: identifier 0xC4 extended with 8 bytes, page selects
// before the first data message, data messages of 1 to 4 bytes that stay inside their 16 KiB page,
// and a complete load ending in the two end messages.
#include <algorithm>
#include <vector>

#include "FuzzSupport.h"
#include "HexLoader.h"

using namespace CANFlasher;

using varnochfuzz::check;

namespace {

bool hasData(const FlashMessage& message, std::initializer_list<std::uint8_t> bytes) {
    return std::equal(bytes.begin(), bytes.end(), message.data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    const std::string path =
        varnochfuzz::scratch().write("firmware.hex", std::string(reinterpret_cast<const char*>(input), size));

    UploadMessages messages;
    messages.append({UploadEnd});  // a load starts afresh
    const HexLoadResult result = loadHexMessages(path, messages, [] { return true; });
    check(result != HexLoadResult::OpenFailed && result != HexLoadResult::Interrupted);

    bool pageSelected = false;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const FlashMessage message = messages[i];
        check(message.identifier == kUploadIdentifier && message.extended &&
              message.length == FlashMessage::kMaxLength);
        switch (message.data[0]) {
            case UploadSelectPage:
                check(hasData(message, {UploadSelectPage, message.data[1], message.data[2], 0, 0, 0, 0, 0}));
                pageSelected = true;
                break;
            case UploadData: {
                const std::uint32_t offset = message.data[1] | std::uint32_t{message.data[2]} << 8;
                const std::uint32_t count = message.data[3];
                check(pageSelected);
                check(count >= 1 && count <= kMaxDataPerMessage);
                check(offset + count <= kPageSize);
                break;
            }
            case UploadEnd:
                check(result == HexLoadResult::Loaded && i + 1 == messages.size());
                check(hasData(message, {UploadEnd, 1, 0, 0, 0, 0, 0, 0}));
                break;
            default:
                check(false);
        }
    }
    if (result == HexLoadResult::Loaded) {
        const std::size_t count = messages.size();
        check(count >= 2);
        check(hasData(messages[count - 2], {UploadSelectPage, 0, 0, 0, 0, 0, 0, 0}));
        check(hasData(messages[count - 1], {UploadEnd, 1, 0, 0, 0, 0, 0, 0}));
    }
    return 0;
}
