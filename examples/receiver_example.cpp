// A consumer: follows the sender at the sidechannel address "vrx-example-sender"
// (sender_example.cpp) for three seconds and prints what arrived. Start it before or after the
// sender: it connects as soon as the sender is there, and again when a sender comes back.
#include <voraxis/VrxReceiver.h>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <algorithm>
#include <atomic>
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

    // Receivers watch $TMPDIR (default /tmp/vrx) for senders appearing; see sender_example.cpp.
    const std::string parent = vrx::getSenderParentDirectory();
    if (mkdir(parent.c_str(), 01777) == 0)
        chmod(parent.c_str(), 01777);

    vrx::PcmDepayloader depayloader; // must outlive the receiver
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);

    // Every callback but the first state change runs on the receiver's own thread.
    std::atomic<unsigned long> frames{0};
    std::atomic<unsigned long long> worstLatency{0};
    receiver.setNewSequenceCallback([&](vrx::Depayloader&) {
        std::printf("sequence: %u Hz, %u channel(s), %s\n", depayloader.getSampleRate(),
                    depayloader.getNumChannels(), audioUtils::toString(depayloader.getSampleFormat()));
    });
    receiver.setReceiverIsReadyCallback([](vrx::Depayloader&, vrx::Receiver::StreamClockType clockType) {
        std::printf("ready; timestamps are on the %s\n", vrx::toString(clockType));
    });
    receiver.setMediaDataCallback(
        [&](unsigned long long timestamp, unsigned long long, const std::vector<unsigned char>&) {
            ++frames;
            // The sender stamps frames on the monotonic clock this host shares.
            const unsigned long long latency = receiver.getCurrentStreamTime() - timestamp;
            worstLatency = std::max(worstLatency.load(), latency);
        });

    if (!receiver.initializeReceiver("vrx-example-sender"))
        return 1;
    std::this_thread::sleep_for(std::chrono::seconds(3));
    receiver.shutdownReceiver();
    std::printf("received %lu frames; worst latency %.3f ms\n", frames.load(), worstLatency.load() / 1e6);
    return 0;
}
