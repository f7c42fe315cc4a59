// Who may talk to whom: the access policy across users (run as root, peers become other users),
// the modes it gives the files of a stream, and what a peer outside it, or a greeting that points
// anywhere, or an input without bounds can no longer do.

#include "StreamFixture.h"

#include <fstream>

namespace vrx::test {
namespace {

namespace fs = std::filesystem;

class AccessTest : public ReceiverTest
{
protected:
    // Peers of other users make their directories here, and reach those of this process.
    AccessTest() { fs::permissions(m_scratch.path(), fs::perms::all | fs::perms::sticky_bit); }
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "becoming other users takes root";
    }

    /// `peer`'s arguments in a process of its own, as `user` (see becomeUser), following VRX_ALLOW=`allow`.
    static std::unique_ptr<ChildProcess> peer(const std::string& user, const std::string& allow,
                                              std::vector<std::string> arguments)
    {
        setenv("VRX_ALLOW", allow.c_str(), 1);
        arguments.insert(arguments.begin(), {VRX_TEST_PEER, "as", user});
        auto child = std::make_unique<ChildProcess>(arguments);
        unsetenv("VRX_ALLOW");
        return child;
    }
    /// True when `attempt` succeeds in a process that is user `user`.
    static bool succeedsAs(const std::string& user, const std::function<bool()>& attempt)
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(becomeUser(user) && attempt() ? 0 : 1);
        int status = -1;
        waitpid(child, &status, 0);
        return status == 0;
    }
    /// The sender's directory under the scratch TMPDIR.
    std::string senderDirectory() const
    {
        for (const auto& entry : fs::directory_iterator(m_scratch.path()))
            if (entry.path().filename().string().starts_with("VrxSender-") && fs::is_directory(entry))
                return entry.path();
        return "";
    }
};

// Unix sockets that connect or bind, for what a peer outside the policy tries.
bool connects(const std::string& path)
{
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}
bool binds(const std::string& path)
{
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

TEST_F(AccessTest, ThePolicyDecidesWhichUsersTakePartOverEitherProtocol)
{
    const std::string sender = "65533:65533,65500";
    struct Case
    {
        const char* name;
        std::string allow, receiver;
        NanomsgProtocol protocol;
        std::string refusal; // the sender's, when it refuses the receiver
    };
    // clang-format off
    const Case cases[] = {
        {"by default, another user is refused", "user", "65534", NanomsgProtocol::PubSub, "user nobody (uid 65534)"},
        {"members of a group, over publish/subscribe", "group:65500", "65534:65534,65500", NanomsgProtocol::PubSub, ""},
        {"members of a group, over a pipeline", "group:65500", "65534:65534,65500", NanomsgProtocol::Pipeline, ""},
        {"a user outside the group is refused", "group:65500", "65534", NanomsgProtocol::PubSub, "user nobody (uid 65534)"},
        {"everyone, over publish/subscribe", "everyone", "65534", NanomsgProtocol::PubSub, ""},
        {"everyone, over a pipeline", "everyone", "65534", NanomsgProtocol::Pipeline, ""},
    };
    // clang-format on
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const auto producer = peer(sender, c.allow, {"sender", m_address, toString(c.protocol), "1"});
        const auto consumer = peer(c.receiver, c.allow, {"receiver", m_address});
        if (c.refusal.empty())
        {
            ASSERT_TRUE(consumer->waitFor("delivering"));
            consumer->stop(SIGTERM);
            EXPECT_THAT(consumer->lines().back(),
                        ::testing::MatchesRegex("frames [1-9][0-9]* lost .* corrupt 0"));
        }
        else
            EXPECT_TRUE(producer->waitFor("WARN Refusing a receiver: " + c.refusal + ", process " +
                                          std::to_string(consumer->pid()) +
                                          " is not allowed by the access policy \"" + c.allow + "\""));
    }
    // Root takes part under any policy: another user's receiver follows a root sender.
    const auto rootSender = peer("0", "everyone", {"sender", m_address, "pubsub", "1"});
    EXPECT_TRUE(peer("65534", "user", {"receiver", m_address})->waitFor("delivering"));
}

// The policy as a user writes it (--allow, VRX_ALLOW): what parses prints back the same.
TEST(AccessPolicyText, IsUserGroupOrEveryoneAndPrintsBackAsWritten)
{
    using Scope = AccessPolicy::Scope;
    // clang-format off
    const std::pair<std::string, std::optional<AccessPolicy>> cases[] = {
        {"user", AccessPolicy{}}, {"everyone", AccessPolicy{Scope::Everyone, 0}},
        {"group:root", AccessPolicy{Scope::Group, 0}}, {"group:65500", AccessPolicy{Scope::Group, 65500}},
        {"", std::nullopt}, {"group:", std::nullopt}, {"group:12x", std::nullopt}, {"Everyone", std::nullopt},
        {"group:no-such-group", std::nullopt},
    };
    // clang-format on
    for (const auto& [text, policy] : cases)
    {
        EXPECT_EQ(AccessPolicy::parse(text), policy) << text;
        EXPECT_EQ(policy ? policy->toString() : "", policy ? text : "");
    }
}

TEST_F(AccessTest, TheFilesOfAStreamLetInWhomThePolicyAllowsAndNoOneElse)
{
    const AccessPolicy group{AccessPolicy::Scope::Group, 65500}, everyone{AccessPolicy::Scope::Everyone, 0};
    // clang-format off
    const std::tuple<AccessPolicy, NanomsgProtocol, fs::perms, fs::perms, bool> cases[] = {
        {AccessPolicy{}, NanomsgProtocol::PubSub, fs::perms(0700), fs::perms(0600), false},
        {AccessPolicy{}, NanomsgProtocol::Pipeline, fs::perms(0700), fs::perms(0600), false},
        {group, NanomsgProtocol::PubSub, fs::perms(0750), fs::perms(0620), true},
        {group, NanomsgProtocol::Pipeline, fs::perms(01770), fs::perms(0620), true},
        {everyone, NanomsgProtocol::PubSub, fs::perms(0755), fs::perms(0622), true},
        {everyone, NanomsgProtocol::Pipeline, fs::perms(01777), fs::perms(0622), true},
    };
    // clang-format on
    for (const auto& [policy, protocol, directoryMode, socketMode, reached] : cases)
    {
        SCOPED_TRACE(policy.toString() + " " + toString(protocol));
        m_sender.setAccessPolicy(policy);
        m_receiver.setAccessPolicy(policy);
        ASSERT_TRUE(startSender(protocol) && m_receiver.initializeReceiver(m_address) && stream(1));
        const std::string directory = senderDirectory(), socket = directory + "/nanomsgChannel.ipc";
        EXPECT_EQ(fs::status(directory).permissions(), directoryMode);
        EXPECT_EQ(fs::status(socket).permissions(), socketMode);
        struct stat status
        {};
        EXPECT_TRUE(stat(socket.c_str(), &status) == 0 && status.st_gid == (policy == group ? 65500u : 0u));
        // Outside the policy no one takes the socket away, nor binds theirs beside it (everyone may,
        // where everyone's pipeline receivers bind); inside it a member connects.
        EXPECT_EQ(succeedsAs("65534", [&] { return unlink(socket.c_str()) == 0 || binds(directory + "/x"); }),
                  policy == everyone && protocol == NanomsgProtocol::Pipeline);
        EXPECT_EQ(succeedsAs("65534:65534,65500", [&] { return connects(socket); }), reached);
        m_receiver.shutdownReceiver();
        m_sender.shutdownSender();
    }
}

TEST_F(AccessTest, AGreetingCannotPointAnywhere)
{
    const std::string files = m_scratch.path() + "/VrxSender-files",
                      open = m_scratch.path() + "/VrxSender-open",
                      other = m_scratch.path() + "/VrxSender-other", precious = files + "/precious";
    fs::create_directories(files + "/directory"), fs::create_directories(open), fs::create_directories(other);
    fs::permissions(open, fs::perms::all);
    std::ofstream(precious) << "precious";
    ASSERT_EQ(chown(other.c_str(), 65534, 65534), 0);
    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    // clang-format off
    const std::tuple<std::string, NanomsgProtocol, std::string> cases[] = {
        {"ipc://" + precious, NanomsgProtocol::Pipeline, "it is no socket"},
        {"ipc://" + files + "/directory", NanomsgProtocol::Pipeline, "it is no socket"},
        {"ipc://" + files + "/none", NanomsgProtocol::PubSub, "there is no socket"},
        {"ipc:///dev/null", NanomsgProtocol::Pipeline, "it is not in a sender's directory"},
        {"tcp://0.0.0.0:5555", NanomsgProtocol::Pipeline, "it names no socket file of an ipc:// address"},
        {"ws://127.0.0.1:5555/stream", NanomsgProtocol::PubSub, "it names no socket file of an ipc:// address"},
        {"ipc://" + open + "/fake.ipc", NanomsgProtocol::Pipeline, "processes outside the access policy may write its directory"},
        {"ipc://" + other + "/fake.ipc", NanomsgProtocol::Pipeline, "its directory belongs to uid 65534, not to the sender"},
    };
    // clang-format on
    for (const auto& [uri, protocol, reason] : cases)
    {
        SCOPED_TRACE(uri);
        ASSERT_TRUE(fake.accept() && fake.send(fake.greeting(0, uri, protocol)));
        EXPECT_TRUE(waitFor([&, &uri = uri, &reason = reason] {
            return !m_log.lines("ERROR Refusing the main channel \"" + uri + "\" of the greeting: " + reason)
                        .empty();
        }));
    }
    std::string kept;
    std::ifstream(precious) >> kept;
    EXPECT_EQ(kept, "precious");
    EXPECT_TRUE(fs::is_directory(files + "/directory"));
    EXPECT_EQ(std::ranges::count(m_callbacks.seen().events, "failed"), 0)
        << "each is a failed attempt, retried";
}

TEST_F(AccessTest, TheSendersParentIsOwnedByItsUserOrRootAndStickyWhenOthersWriteIt)
{
    const std::string parent = m_scratch.path() + "/parent";
    m_scratch.setTmpdir(parent.c_str());
    // clang-format off
    const std::tuple<const char*, fs::perms, uid_t, std::string> cases[] = {
        {"another user's", fs::perms(0755), 65534, "it belongs to uid 65534, neither to this user nor to root"},
        {"writable by all, not sticky", fs::perms(0777), 0, "others may write it and it is not sticky, so they could replace what a sender makes in it"},
        {"writable by all and sticky", fs::perms(01777), 0, ""},
    };
    // clang-format on
    for (const auto& [name, mode, owner, refusal] : cases)
    {
        SCOPED_TRACE(name);
        m_log.clear();
        fs::create_directories(parent);
        fs::permissions(parent, mode);
        ASSERT_EQ(chown(parent.c_str(), owner, owner), 0);
        EXPECT_EQ(m_sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                            NanomsgProtocol::PubSub),
                  refusal.empty());
        EXPECT_EQ(m_log.lines("ERROR"),
                  refusal.empty()
                      ? LogLines{}
                      : LogLines{"ERROR Cannot make a sender's directory in \"" + parent + "\": " + refusal});
        m_sender.shutdownSender();
        fs::remove_all(parent);
    }
}

// What a peer sends is taken within bounds: a sender holds at most 256 connections, a receiver a
// greeting of at most 64 KiB and a message of at most its largest size.
TEST_F(AccessTest, InputsHaveBounds)
{
    ASSERT_TRUE(startSender());
    std::vector<std::unique_ptr<SidechannelClient>> clients;
    for (int client = 0; client < 260; ++client)
        clients.push_back(std::make_unique<SidechannelClient>(m_address));
    const auto greeted =
        std::ranges::count_if(clients, [](auto& client) { return client->readMessage().has_value(); });
    EXPECT_EQ(greeted, 256);
    clients.clear();
    ASSERT_TRUE(waitFor([&] { return !m_sender.areThereClientConnections(); }));
    ASSERT_TRUE(SidechannelClient(m_address).readMessage()) << "there is room again";
    EXPECT_EQ(m_log.lines("WARN"),
              LogLines{"WARN Closing the connections of further receivers while 256 are connected"});
    EXPECT_EQ(m_log.lines("INFO"),
              LogLines{"INFO Room for receivers again; 4 connection(s) were closed for want of it"});
    m_sender.shutdownSender();

    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && fake.accept());
    const SidechannelMessageSize huge = produceSidechannelMessageSize(1u << 30);
    ASSERT_EQ(write(fake.connection(), huge.data(), huge.size()), 4);
    ASSERT_TRUE(
        m_log.waitFor("ERROR Refusing a sidechannel message of 1073741824 bytes; at most 65536 are taken"));
    // A pipeline receiver's socket: a message header that announces 2^40 bytes, from this user.
    ASSERT_TRUE(fake.accept() && fake.send(fake.greeting()) && m_callbacks.waitFor("state running"));
    const Buffer header = bytes("\x00SP\x00\x00\x50\x00\x00\x01\x00\x00\x01\x00\x00\x00\x00\x00"sv);
    const int raw = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un to{AF_UNIX, {}};
    fake.uri().substr(6).copy(to.sun_path, sizeof(to.sun_path) - 1);
    ASSERT_TRUE(connect(raw, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0 &&
                write(raw, header.data(), header.size()) == static_cast<ssize_t>(header.size()));
    ASSERT_TRUE(fake.push(sequenceInfo(1)) && fake.push(frame(1, 7)) &&
                waitFor([&] { return m_callbacks.seen().frames == std::vector<std::uint64_t>{7}; }))
        << "the receiver goes on";
    close(raw);
}

} // namespace
} // namespace vrx::test
