#include "src/front/debug.h"

#ifdef VELT_DEBUG_LOG

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int NO_LOG = -1;
constexpr std::size_t LINE_SIZE = 256;

std::atomic<int> logFile{NO_LOG};

// A regular file, or NO_LOG: whoever can plant a link or a pipe at the name gets no log.
int openLog() noexcept
{
    const int file = open(
        VELT_DEBUG_LOG, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    struct stat facts {};
    if (file >= 0 && (fstat(file, &facts) != 0 || !S_ISREG(facts.st_mode))) {
        close(file);
        return NO_LOG;
    }
    return file < 0 ? NO_LOG : file;
}

} // namespace

void VELT_PKCS11_InitDebug() noexcept
{
    if (logFile.load() != NO_LOG) {
        return;
    }
    const int opened = openLog();
    int expected = NO_LOG;
    if (opened != NO_LOG && !logFile.compare_exchange_strong(expected, opened)) {
        close(opened); // another thread was faster
    }
}

void VELT_PKCS11_DebugD(const char* message, std::uint32_t kind, std::uint64_t value) noexcept
{
    const int file = logFile.load();
    if (file == NO_LOG) {
        return;
    }
    const int hostError = errno;
    char line[LINE_SIZE];
    const int length = kind == DEBUG_PLAIN
                           ? std::snprintf(line, sizeof line, "%s\n", message)
                           : std::snprintf(line, sizeof line, "%s0x%lx\n", message, value);
    if (length > 0 && static_cast<std::size_t>(length) < sizeof line) {
        // One write a line, so that lines of several threads and processes stay whole.
        [[maybe_unused]] const ssize_t written =
            write(file, line, static_cast<std::size_t>(length));
    }
    errno = hostError;
}

// Also when the library is unloaded.
[[gnu::destructor]] void VELT_PKCS11_CloseDebug() noexcept
{
    const int file = logFile.exchange(NO_LOG);
    if (file != NO_LOG) {
        close(file);
    }
}

#endif
