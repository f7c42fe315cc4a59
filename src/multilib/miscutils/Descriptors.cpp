#include "miscutils/Descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace miscUtils {

namespace {

constexpr char wakeupByte = '1';
// One read takes this many pending wake-ups at once.
constexpr std::size_t drainSize = 1024;

} // namespace

void FileDescriptor::reset(int fd) noexcept
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = fd;
}

bool WakeupPipe::open() noexcept
{
    close();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0)
        return false;
    m_readEnd.reset(ends[0]);
    m_writeEnd.reset(ends[1]);
    return true;
}

void WakeupPipe::close() noexcept
{
    m_readEnd.reset();
    m_writeEnd.reset();
}

bool WakeupPipe::notify() const noexcept
{
    return write(m_writeEnd, &wakeupByte, 1) == 1 || errno == EAGAIN;
}

bool WakeupPipe::drain() const noexcept
{
    char drained[drainSize];
    return read(m_readEnd, drained, sizeof(drained)) >= 0 || errno == EAGAIN;
}

} // namespace miscUtils
