// What the debug hooks were passed since a mark. Only a build with VELT_DEBUG_LOG keeps messages;
// in any other build the expectations here hold by themselves.
//
//     velt_test::MessageMark mark;
//     EXPECT_EQ(VELT_Login(...), CKR_PIN_INCORRECT);
//     EXPECT_MESSAGES(mark, "Login CKR_PIN_INCORRECT");            // these, in order, no others
//     EXPECT_MESSAGES(mark, velt_test::numbered("Login ", 0x1f));   // a message with its number
//     EXPECT_MESSAGE_AMONG(mark, "Login CKR_PIN_INCORRECT");       // this one at least
//     EXPECT_MESSAGES(mark);                                        // none at all
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ios>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velt_test {

#ifdef VELT_DEBUG_LOG
constexpr bool messagesAreKept = true;
constexpr const char* messageLog = VELT_DEBUG_LOG;
#else
constexpr bool messagesAreKept = false;
constexpr const char* messageLog = "";
#endif

// A message with its number, as the log shows it.
inline std::string numbered(const std::string& text, std::uint64_t value)
{
    std::ostringstream line;
    line << text << "0x" << std::hex << value;
    return line.str();
}

// Remembers where the log stands; a log that is not there yet reads as empty.
class MessageMark {
public:
    MessageMark() { reset(); }

    void reset()
    {
        if (messagesAreKept) {
            std::error_code absent;
            const auto size = std::filesystem::file_size(messageLog, absent);
            start_ = absent ? 0 : static_cast<std::streamoff>(size);
        }
    }

    // The messages passed since the mark, one an element.
    std::vector<std::string> passed() const
    {
        std::vector<std::string> messages;
        if (messagesAreKept) {
            std::ifstream log(messageLog, std::ios::binary);
            log.seekg(start_);
            for (std::string line; std::getline(log, line);) {
                messages.push_back(line);
            }
        }
        return messages;
    }

private:
    std::streamoff start_ = 0;
};

inline void expectMessagesAt(const char* file, int line, const MessageMark& mark,
                             const std::vector<std::string>& expected)
{
    if (messagesAreKept) {
        const ::testing::ScopedTrace where(file, line, "messages of the debug hooks");
        EXPECT_THAT(mark.passed(), ::testing::ElementsAreArray(expected));
    }
}

template <class... Texts>
void expectMessages(const char* file, int line, const MessageMark& mark, const Texts&... texts)
{
    expectMessagesAt(file, line, mark, std::vector<std::string>{std::string(texts)...});
}

// The same for a list made elsewhere.
inline void expectMessages(const char* file, int line, const MessageMark& mark,
                           const std::vector<std::string>& expected)
{
    expectMessagesAt(file, line, mark, expected);
}

inline void expectMessageAmong(const char* file, int line, const MessageMark& mark,
                               const std::string& text)
{
    if (messagesAreKept) {
        const ::testing::ScopedTrace where(file, line, "messages of the debug hooks");
        EXPECT_THAT(mark.passed(), ::testing::Contains(text));
    }
}

} // namespace velt_test

// (mark, text...) or (mark, vector of texts)
#define EXPECT_MESSAGES(...) velt_test::expectMessages(__FILE__, __LINE__, __VA_ARGS__)
// (mark, text)
#define EXPECT_MESSAGE_AMONG(...) velt_test::expectMessageAmong(__FILE__, __LINE__, __VA_ARGS__)
