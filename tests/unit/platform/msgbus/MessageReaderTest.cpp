#include "kelto/msgbus/MessageReader.h"
#include "kelto/osa/UniqueFd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>

namespace kelto::msgbus {

namespace {

constexpr size_t noLimit = SIZE_MAX;

/** A signal as it would come from a bus, on a connection that leads nowhere. */
class Signal {
public:
    Signal() {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("cannot make a pair of sockets");
        }
        otherEnd = std::make_unique<osa::UniqueFd>(ends[1]);
        if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, ends[0], ends[0]) < 0 || sd_bus_start(bus) < 0 ||
            sd_bus_message_new_signal(bus, &message, "/test", "com.kelto.Test", "Test") < 0) {
            throw std::runtime_error("cannot make a message");
        }
    }
    ~Signal() {
        sd_bus_message_unref(message);
        sd_bus_unref(bus);
    }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    sd_bus_message* Get() const { return message; }

    MsgBusMsg Read(size_t mostBytes) {
        if (sd_bus_message_seal(message, 1, 0) < 0 || sd_bus_message_rewind(message, 1) < 0) {
            throw std::runtime_error("cannot seal a message");
        }
        return MessageReader::Read(message, mostBytes);
    }

private:
    std::unique_ptr<osa::UniqueFd> otherEnd;
    sd_bus* bus = nullptr;
    sd_bus_message* message = nullptr;
};

TEST(MessageReader, ReckonsEveryValueAndEveryTextIntoTheSize) {
    Signal signal;
    ASSERT_GE(sd_bus_message_append(signal.Get(), "sa(dd)i", "abcde", 2, 1.0, 2.0, 3.0, 4.0, 7), 0);
    const MsgBusMsg read = signal.Read(noLimit);
    EXPECT_EQ(read.arguments.size(), 3U);
    // The three arguments, the two points and their four numbers.
    EXPECT_EQ(read.size, sizeof(MsgBusMsg) + 9 * sizeof(MsgBusMsg::Value) + 5);
}

TEST(MessageReader, ReadsAMessageThatTakesAllItMayAndGivesUpOneThatTakesMore) {
    const std::string text(1000, 'x');
    const size_t needed = sizeof(MsgBusMsg::Value) + text.size();
    Signal fits;
    ASSERT_GE(sd_bus_message_append(fits.Get(), "s", text.c_str()), 0);
    EXPECT_EQ(fits.Read(needed).arguments.size(), 1U);
    Signal tooLarge;
    ASSERT_GE(sd_bus_message_append(tooLarge.Get(), "s", text.c_str()), 0);
    const MsgBusMsg read = tooLarge.Read(needed - 1);
    EXPECT_TRUE(read.arguments.empty());
    EXPECT_GT(read.size, needed - 1);
}

}  // namespace

}  // namespace kelto::msgbus
