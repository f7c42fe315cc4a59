// The library's two ends in processes of their own, for tests that kill, stop or restart them,
// or run them as another user:
//
//   vrx_test_peer [as UID[:GID,...]] ROLE ...   runs ROLE as user UID, in the groups GID,...
//       (the first is its group; UID's when none is named), with the access policy of VRX_ALLOW.
//       The library's warnings and errors are printed as "LEVEL text".
//   ROLE sender ADDRESS pubsub|pipeline FIRST   streams frames of the frame scheme
//       (timestamps FIRST, FIRST + 1, ...), one per millisecond, until it is killed;
//   ROLE receiver ADDRESS   prints "running" at each connection, "delivering" at its first
//       frame, and, once SIGTERM has stopped it, "frames N lost L corrupt C" (lost: gaps between timestamps
//       of a connection);
//   ROLE push URI SEQUENCE   pushes Frames of that sequence (timestamps 1000, 1001, ...) to the
//       pipeline channel at URI, one per 100 ms, until it is killed (a message nanomsg has taken
//       may still be queued when a process ends).

#include "Peers.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>

#include <csignal>

using namespace vrx;

int main(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() > 2 && arguments[0] == "as")
    {
        if (!test::becomeUser(arguments[1]))
            return 3;
        arguments.erase(arguments.begin(), arguments.begin() + 2);
    }
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(false, true));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>("%p %m%n"));
    log4cplus::Logger library = log4cplus::Logger::getInstance("Voraxis");
    library.addAppender(console);
    library.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    if (arguments.size() == 4 && arguments[0] == "sender")
    {
        Sender sender;
        if (!sender.initializeSender(arguments[1], "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                     toNanomsgProtocol(arguments[2])))
            return 1;
        sender.setCurrentPayloader(payloader);
        sender.startNewSequence();
        for (std::uint64_t timestamp = std::stoull(arguments[3]);; ++timestamp)
        {
            sender.sendMediaData(timestamp, test::durationOf(timestamp), test::mediaOf(timestamp));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    if (arguments.size() == 2 && arguments[0] == "receiver")
    {
        // SIGTERM is taken by this thread alone, in sigwait; the receiver's threads inherit the mask.
        sigset_t terminate;
        sigemptyset(&terminate);
        sigaddset(&terminate, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
        PcmDepayloader depayloader;
        Receiver receiver;
        std::uint64_t frames = 0, lost = 0, corrupt = 0, last = 0;
        receiver.addDepayloader(depayloader);
        receiver.setStateChangedCallback([&](Receiver::State state) {
            if (state == Receiver::State::Running)
                std::printf("running\n"), std::fflush(stdout), last = 0;
        });
        receiver.setMediaDataCallback([&](unsigned long long timestamp, unsigned long long duration,
                                          const std::vector<unsigned char>& media) {
            if (last == 0)
                std::printf("delivering\n"), std::fflush(stdout);
            ++frames;
            lost += last != 0 && timestamp > last + 1 ? timestamp - last - 1 : 0;
            corrupt += duration != test::durationOf(timestamp) || media != test::mediaOf(timestamp);
            last = timestamp;
        });
        receiver.initializeReceiver(arguments[1]);
        int signal = 0;
        sigwait(&terminate, &signal);
        receiver.shutdownReceiver();
        std::printf("frames %llu lost %llu corrupt %llu\n", static_cast<unsigned long long>(frames),
                    static_cast<unsigned long long>(lost), static_cast<unsigned long long>(corrupt));
        return 0;
    }
    if (arguments.size() == 3 && arguments[0] == "push")
    {
        test::NanomsgPeer pusher(NN_PUSH, arguments[1]);
        for (std::uint64_t timestamp = 1000;; ++timestamp)
        {
            Buffer frame;
            payloader.produceFramePacket(frame, static_cast<unsigned short>(std::stoul(arguments[2])),
                                         timestamp, test::durationOf(timestamp), test::mediaOf(timestamp));
            pusher.send(frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    return 2;
}
