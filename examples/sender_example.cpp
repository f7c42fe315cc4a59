// A producer: streams two seconds of 48 kHz stereo 16-bit PCM in 10 ms frames to every
// receiver that connects to the sidechannel address "vrx-example-sender" (receiver_example.cpp
// is one), then shuts down.
#include <voraxis/VrxSender.h>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <sys/stat.h>

int main()
{
    log4cplus::Initializer logging; // the library logs, the application configures
    log4cplus::BasicConfigurator::doConfigure();

    // The sender makes its directory under $TMPDIR (default /tmp/vrx), where receivers watch
    // for it, but never creates that parent: like /tmp, it is shared by every user.
    const std::string parent = vrx::getSenderParentDirectory();
    if (mkdir(parent.c_str(), 01777) == 0)
        chmod(parent.c_str(), 01777); // the umask narrows mkdir's mode

    vrx::PcmPayloader payloader; // must outlive the sender's use of it
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    if (!sender.initializeSender("vrx-example-sender", "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                 vrx::NanomsgProtocol::PubSub))
        return 1;
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence(); // announces the format; receivers need it before any frame

    const vrx::Buffer samples(480 * 2 * 2, 0); // 10 ms of silence
    const miscUtils::TimeValue frameDuration = 10'000'000;
    auto due = std::chrono::steady_clock::now();
    for (int frame = 0; frame < 200; ++frame)
    {
        // Stamped on the monotonic clock that the sender announced; never blocks on receivers.
        sender.sendMediaData(miscUtils::getMonotonicSysclockTime(), frameDuration, samples);
        std::this_thread::sleep_until(due += std::chrono::milliseconds(10));
    }

    sender.shutdownSender(); // removes the sender's directory
    std::puts("sent 200 frames of 10 ms");
    return 0;
}
