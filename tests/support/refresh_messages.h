// The messages of a refresh of the reader table.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velt_test {

using Texts = std::vector<std::string>;

constexpr std::string_view PNP_READER = "\\\\?PnP?\\Notification";

// What the debug hooks are passed during a refresh, from the probe of the pseudo-reader on;
// `families` holds the message of each reader with a card, in reader order.
inline Texts refreshMessages(const Texts& families, bool plugAndPlay = true)
{
    Texts messages{plugAndPlay ? "GetSlotList: Using reader plug'n play mechanism"
                               : "GetSlotList: Plug'n play reader name not supported."};
    messages.emplace_back("UpdateSlotsStates");
    for (int step = 1; step <= 10; ++step) {
        messages.push_back("UpdateSlotsStates " + std::to_string(step));
    }
    messages.insert(messages.end(), families.begin(), families.end());
    messages.emplace_back("UpdateSlotstates CKR_OK");
    return messages;
}

inline Texts operator+(Texts left, const Texts& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace velt_test
