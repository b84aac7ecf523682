#include "agent/machineClient.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

#include "agent/lowMemory.h"
#include "agent/machineProtocol.h"
#include "support/senderRun.h"

using test::TemporaryDirectory;
using zelsend::Device;
using zelsend::ExitCode;
using zelsend::LowMemory;
using zelsend::MachineClient;
using zelsend::Outcome;
using zelsend::userAddress;
using namespace zelsend::machine;

namespace
{

// The machine's side of one connection, as a script.
class Machine
{
public:
    using Script = std::function<void(Machine &)>;

    explicit Machine(Script script) : path_(directory_.path() / "socket")
    {
        listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path_.c_str());
        bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        listen(listener_, 1);
        thread_ = std::thread([this, script] {
            connection_ = accept(listener_, nullptr, nullptr);
            hello_ = take<Request>();
            script(*this);
            close(connection_);
        });
    }
    ~Machine()
    {
        thread_.join();
        close(listener_);
    }

    const char *path() const { return path_.c_str(); }
    const Request &hello() const { return hello_; }

    template<class T> T take()
    {
        T value = {};
        receive(&value, sizeof(value));
        return value;
    }
    std::string takeText(std::size_t bytes)
    {
        std::string text(bytes, '\0');
        receive(text.data(), bytes);
        return text;
    }
    void give(const void *data, std::size_t bytes)
    {
        EXPECT_EQ(send(connection_, data, bytes, MSG_NOSIGNAL), static_cast<ssize_t>(bytes));
    }
    void reply(int result, std::uint32_t major = 0, std::uint32_t minor = 0)
    {
        Message message = {MessageType::Reply, result, 0, 0, major, minor};
        give(&message, sizeof(message));
    }
    void replyWithFile(int file)
    {
        Message message = {MessageType::Reply, 0, 0, 0, 0, 0};
        iovec place = {&message, sizeof(message)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr header = {};
        header.msg_iov = &place;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr *attached = CMSG_FIRSTHDR(&header);
        attached->cmsg_level = SOL_SOCKET;
        attached->cmsg_type = SCM_RIGHTS;
        attached->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(attached), &file, sizeof(int));
        EXPECT_EQ(sendmsg(connection_, &header, 0), static_cast<ssize_t>(sizeof(message)));
    }
    // As copy_from_user: what of the client's memory could be read.
    std::string readMemory(std::uint32_t address, std::uint32_t bytes)
    {
        Message message = {MessageType::ReadMemory, 0, address, bytes, 0, 0};
        give(&message, sizeof(message));
        return takeText(take<MemoryAnswer>().copied);
    }
    // As copy_to_user: how much could be written.
    std::uint32_t writeMemory(std::uint32_t address, const std::string &bytes)
    {
        Message message = {
            MessageType::WriteMemory, 0, address, static_cast<std::uint32_t>(bytes.size()), 0, 0};
        give(&message, sizeof(message));
        give(bytes.data(), bytes.size());
        return take<MemoryAnswer>().copied;
    }

private:
    void receive(void *data, std::size_t bytes)
    {
        if (bytes > 0) {
            EXPECT_EQ(recv(connection_, data, bytes, MSG_WAITALL), static_cast<ssize_t>(bytes));
        }
    }

    TemporaryDirectory directory_;
    std::string path_;
    int listener_ = -1;
    int connection_ = -1;
    Request hello_ = {};
    std::thread thread_;
};

void accepting(Machine &machine)
{
    machine.reply(0);
}

// Two pages of which the second is not there.
struct HalfMemory {
    HalfMemory()
    {
        EXPECT_TRUE(memory.allocate(2 * pageBytes));
        mprotect(second(), pageBytes, PROT_NONE);
    }
    char *second() { return static_cast<char *>(memory.data()) + pageBytes; }
    std::uint32_t address(std::uint32_t beforeHole) { return userAddress(second()) - beforeHole; }
    LowMemory memory;
};

} // namespace

TEST(MachineClient, SaysHello)
{
    MachineClient client;
    Machine machine(accepting);
    ASSERT_TRUE(client.connect(machine.path()));
    EXPECT_EQ(machine.hello().type, RequestType::Hello);
    EXPECT_EQ(machine.hello().command, protocolMagic);
    EXPECT_EQ(machine.hello().argument, protocolVersion);
}

TEST(MachineClient, AMachineThatIsNotThereOrRefusesIsAFailure)
{
    MachineClient none;
    Outcome outcome = none.connect("/no/such/socket");
    EXPECT_EQ(outcome.code, ExitCode::Refused);
    EXPECT_STREQ(outcome.text, "machine /no/such/socket: No such file or directory");
    MachineClient longPath;
    EXPECT_EQ(longPath.connect(std::string(200, 'x').c_str()).code, ExitCode::Usage);
    MachineClient refused;
    Machine machine([](Machine &m) { m.reply(-EPROTO); });
    outcome = refused.connect(machine.path());
    EXPECT_EQ(outcome.code, ExitCode::Refused);
    EXPECT_NE(std::string(outcome.text).find("Protocol error"), std::string::npos);
}

TEST(MachineClient, HandsCallsOnAndResultsBackAsTheyAre)
{
    Machine machine([](Machine &m) {
        m.reply(0);
        auto resolve = m.take<Request>();
        EXPECT_EQ(resolve.type, RequestType::Resolve);
        EXPECT_EQ(m.takeText(resolve.textBytes), "/dev/sda1");
        m.reply(0, 8, 1);
        auto open = m.take<Request>();
        EXPECT_EQ(open.type, RequestType::Open);
        EXPECT_EQ(open.flags, static_cast<std::uint32_t>(O_RDWR));
        EXPECT_EQ(m.takeText(open.textBytes), "/dev/zelmod");
        m.reply(3);
        auto control = m.take<Request>();
        EXPECT_EQ(control.type, RequestType::Ioctl);
        EXPECT_EQ(control.descriptor, 3);
        EXPECT_EQ(control.command, 0x2a05U);
        EXPECT_EQ(control.argument, 0U);
        m.reply(12);
        m.take<Request>();
        m.reply(-EFAULT);
        auto close = m.take<Request>();
        EXPECT_EQ(close.type, RequestType::Close);
        EXPECT_EQ(close.descriptor, 3);
        m.reply(0);
    });
    MachineClient client;
    ASSERT_TRUE(client.connect(machine.path()));
    Device d = client.device();
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    EXPECT_EQ(d.resolve(d.self, "/dev/sda1", &major, &minor), 0);
    EXPECT_EQ(major, 8U);
    EXPECT_EQ(minor, 1U);
    EXPECT_EQ(d.open(d.self, "/dev/zelmod"), 3);
    EXPECT_EQ(d.ioctl(d.self, 3, 0x2a05, nullptr), 12);
    EXPECT_EQ(d.ioctl(d.self, 3, 0x2a05, nullptr), -EFAULT);
    EXPECT_EQ(d.close(d.self, 3), 0);
}

TEST(MachineClient, GivesAndTakesMemoryUpToABadPage)
{
    HalfMemory half;
    std::memcpy(half.second() - 5, "abcde", 5);
    LowMemory constant;
    ASSERT_TRUE(constant.allocate(pageBytes));
    mprotect(constant.data(), pageBytes, PROT_READ);
    LowMemory large;
    ASSERT_TRUE(large.allocate(maxMemoryBytes));
    std::string pattern(maxMemoryBytes - 10, 'p');
    Machine machine([&](Machine &m) {
        m.reply(0);
        auto control = m.take<Request>();
        EXPECT_EQ(control.argument, half.address(5));
        EXPECT_EQ(m.readMemory(control.argument, 5), "abcde");
        EXPECT_EQ(m.readMemory(control.argument, 6), "abcde");
        EXPECT_EQ(m.readMemory(half.address(0), 1), "");
        EXPECT_EQ(m.readMemory(0x10, 8), "");
        EXPECT_EQ(m.readMemory(0xfffffff0, 32), "");
        EXPECT_EQ(m.writeMemory(half.address(3), "xyz"), 3U);
        EXPECT_EQ(m.writeMemory(half.address(3), "XYZ0123456789"), 3U);
        EXPECT_EQ(m.writeMemory(half.address(0), "q"), 0U);
        EXPECT_EQ(m.writeMemory(userAddress(constant.data()), "q"), 0U);
        EXPECT_EQ(m.readMemory(userAddress(constant.data()), 1), std::string(1, '\0'));
        EXPECT_EQ(m.writeMemory(userAddress(large.data()) + 7, pattern), pattern.size());
        EXPECT_EQ(m.readMemory(userAddress(large.data()) + 7, maxMemoryBytes - 10), pattern);
        EXPECT_EQ(m.readMemory(control.argument, 0), "");
        m.reply(0);
    });
    MachineClient client;
    ASSERT_TRUE(client.connect(machine.path()));
    Device d = client.device();
    EXPECT_EQ(d.ioctl(d.self, 3, 1, half.second() - 5), 0);
    EXPECT_EQ(std::string(half.second() - 5, 5), "abXYZ");
}

TEST(MachineClient, MapsThePagesThatTheMachineNames)
{
    int file = memfd_create("pages", 0);
    ASSERT_EQ(ftruncate(file, 4 * pageBytes), 0);
    for (std::uint32_t i = 0; i < 4; i++) {
        std::string mark = "page " + std::to_string(i);
        ASSERT_EQ(pwrite(file, mark.data(), mark.size(), i * pageBytes), 6);
    }
    std::uint32_t asked = 0;
    Machine machine([&](Machine &m) {
        m.reply(0);
        auto map = m.take<Request>();
        EXPECT_EQ(map.type, RequestType::Map);
        EXPECT_EQ(map.bytes, 3 * pageBytes);
        EXPECT_EQ(map.protection, static_cast<std::uint32_t>(PROT_READ));
        EXPECT_EQ(map.flags, static_cast<std::uint32_t>(MAP_PRIVATE));
        EXPECT_EQ(map.offset, 0U);
        asked = map.address;
        m.replyWithFile(file);
        for (std::uint64_t page : {2, 0, 3}) {
            MappedPage mapped = {page * pageBytes};
            m.give(&mapped, sizeof(mapped));
        }
        m.take<Request>();
        EXPECT_EQ(pwrite(file, "new", 3, 0), 3); // as the module fills the buffer
        m.reply(0);
        auto unmap = m.take<Request>();
        EXPECT_EQ(unmap.type, RequestType::Unmap);
        EXPECT_EQ(unmap.address, asked);
        EXPECT_EQ(unmap.bytes, 3 * pageBytes);
        m.reply(0);
    });
    MachineClient client;
    ASSERT_TRUE(client.connect(machine.path()));
    Device d = client.device();
    void *mapped = nullptr;
    ASSERT_EQ(d.map(d.self, 3, 3 * pageBytes, &mapped), 0);
    EXPECT_EQ(userAddress(mapped), asked);
    auto text = static_cast<const char *>(mapped);
    EXPECT_STREQ(text, "page 2");
    EXPECT_STREQ(text + pageBytes, "page 0");
    EXPECT_STREQ(text + 2 * pageBytes, "page 3");
    EXPECT_EQ(d.ioctl(d.self, 3, ZEL_READ_BLOCKS, nullptr), 0);
    EXPECT_STREQ(text + pageBytes, "newe 0");
    EXPECT_EQ(d.unmap(d.self, mapped, 3 * pageBytes), 0);
    close(file);
}

TEST(MachineClient, ARefusedMappingGivesItsResult)
{
    Machine machine([&](Machine &m) {
        m.reply(0);
        m.take<Request>();
        m.reply(2);
        m.take<Request>();
        m.reply(0); // without a file
    });
    MachineClient client;
    ASSERT_TRUE(client.connect(machine.path()));
    Device d = client.device();
    void *mapped = nullptr;
    EXPECT_EQ(d.map(d.self, 3, pageBytes, &mapped), 2);
    EXPECT_EQ(d.map(d.self, 3, pageBytes, &mapped), -EIO);
    EXPECT_EQ(mapped, nullptr);
}

TEST(MachineClient, AMachineThatGoesAwayIsAnInputOutputError)
{
    Machine machine([](Machine &m) {
        m.reply(0);
        m.take<Request>();
    });
    MachineClient client;
    ASSERT_TRUE(client.connect(machine.path()));
    Device d = client.device();
    EXPECT_EQ(d.ioctl(d.self, 3, 1, nullptr), -EIO);
    EXPECT_EQ(d.ioctl(d.self, 3, 1, nullptr), -EIO);
    EXPECT_EQ(d.open(d.self, "/dev/zelmod"), -EIO);
}

TEST(MachineClient, AMachineThatBreaksTheProtocolIsAnInputOutputError)
{
    Machine tooMuch([](Machine &m) {
        m.reply(0);
        m.take<Request>();
        Message message = {MessageType::ReadMemory, 0, 0x1000, maxMemoryBytes + 1, 0, 0};
        m.give(&message, sizeof(message));
    });
    MachineClient first;
    ASSERT_TRUE(first.connect(tooMuch.path()));
    EXPECT_EQ(first.device().ioctl(&first, 3, 1, nullptr), -EIO);
    Machine unknown([](Machine &m) {
        m.reply(0);
        m.take<Request>();
        Message message = {MessageType{9}, 0, 0, 0, 0, 0};
        m.give(&message, sizeof(message));
    });
    MachineClient second;
    ASSERT_TRUE(second.connect(unknown.path()));
    EXPECT_EQ(second.device().ioctl(&second, 3, 1, nullptr), -EIO);
}
