#include "companions/outbox/Reception.h"

#include "companions/outbox/Log.h"
#include "companions/outbox/Submission.h"
#include "companions/outbox/Uptime.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::UniqueFd;

namespace {

// In milliseconds.
constexpr int64_t requestPatience = 2'000;
constexpr int64_t confirmPatience = 1'000;
constexpr int64_t answerPatience = 10'000;
constexpr size_t mostConnections = 64;
constexpr const char* daemonUser = "halvek";

bool MayAsk(uid_t user) {
    static const passwd* const daemon = getpwnam(daemonUser);
    return user == 0 || user == geteuid() || (daemon != nullptr && user == daemon->pw_uid);
}

}  // namespace

void Reception::Open(const std::string& path) {
    if (sd_listen_fds(1) > 0) {
        listener.Reset(SD_LISTEN_FDS_START);
        isActivated = true;
        return;
    }
    listener.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    unlink(path.c_str());
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(path.c_str(), 0660) != 0 || listen(listener.Get(), SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

void Reception::Accept() {
    UniqueFd accepted(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted.IsOpen()) {
        return;
    }
    lastBusy = Uptime();
    connections.emplace_back(std::move(accepted)).deadline = lastBusy + requestPatience;
    Serve(connections.back());
}

void Reception::Serve(Connection& connection) {
    if (connection.HasUnsent()) {
        if (!connection.Flush() || (!connection.HasUnsent() && connection.closesWhenSent)) {
            Forget(connection);
        }
        return;
    }
    if (connection.unheardItem != 0) {
        Confirm(connection);
        return;
    }
    const bool isThere = connection.Receive();
    if (connection.HasRequest()) {
        TakeRequest(connection);
    } else if (!isThere) {
        Forget(connection);
    }
}

void Reception::TakeRequest(Connection& connection) {
    const std::string text = connection.Text();
    connection.ClearText();
    connection.deadline = Uptime() + answerPatience;
    const std::optional<FieldText::Fields> fields = FieldText::Parse(text);
    connection.closesWhenSent = true;
    if (!MayAsk(connection.Peer())) {
        connection.Answer("refused: user " + std::to_string(connection.Peer()) + " may not ask\n");
    } else if (!fields || fields->empty() || fields->front().first != "verb") {
        connection.Answer("refused: this is no request\n");
    } else if (fields->front().second == Submission::verb) {
        TakeSubmission(connection, text.substr(text.find('\n') + 1));
        return;
    } else {
        connection.Answer(answer(*fields));
    }
    if (!connection.HasUnsent()) {
        Forget(connection);
    }
}

void Reception::TakeSubmission(Connection& connection, const std::string& header) {
    std::optional<ItemHeader> read = ItemHeader::Decode(header);
    struct stat status {};
    std::string refusal = "refused: this is no submission\n";
    if (read && fstat(connection.Attached(), &status) == 0 && S_ISREG(status.st_mode)) {
        if (settings.Find(read->host) != nullptr) {
            // The target has an account of its own.
            read->password.clear();
        }
        try {
            Item& item = queue.Accept(*read, connection.Attached(), static_cast<uint64_t>(status.st_size));
            deliveries.Assign(item);
            connection.unheardItem = item.file.id;
            connection.closesWhenSent = false;
            connection.deadline = Uptime() + confirmPatience;
            connection.CloseAttached();
            connection.Answer(std::string(Submission::queued) + SpoolFolder::NameOf(item.file.id) + "\n");
            return;
        } catch (const QueueFull& full) {
            refusal = std::string(Submission::full) + full.what() + "\n";
        } catch (const std::system_error& failure) {
            Log::Error("An item could not be taken: " + std::string(failure.what()));
            refusal = "refused: " + std::string(failure.what()) + "\n";
        }
    }
    connection.Answer(refusal);
    Forget(connection);
}

/**
 * It counts from now on. What he has said is taken in only behind that: if we end in between, the kernel tells him that
 * nobody has listened, and he delivers it otherwise. So it is never lost, and twice there only if we end just here.
 */
void Reception::Confirm(Connection& connection) {
    Item* item = queue.Find(connection.unheardItem);
    if (connection.Peek() == Submission::heard && item != nullptr) {
        try {
            queue.Confirm(*item);
        } catch (const std::system_error& failure) {
            Log::Error("An item could not be taken: " + std::string(failure.what()));
            connection.Answer(std::string(Submission::forgotten) + "\n");
            Forget(connection);
            return;
        }
        connection.Receive();
        connection.unheardItem = 0;
        if (!deliveries.IsWell(*item)) {
            queue.KeepSafe(*item);
        }
    }
    Forget(connection);
}

void Reception::Forget(Connection& connection) {
    if (connection.unheardItem != 0) {
        queue.Forget(connection.unheardItem);
    }
    lastBusy = Uptime();
    connections.remove_if([&](const Connection& other) { return &other == &connection; });
}

void Reception::CloseLate() {
    const int64_t now = Uptime();
    for (auto connection = connections.begin(); connection != connections.end();) {
        Connection& late = *connection++;
        if (late.deadline > now) {
            continue;
        }
        if (late.unheardItem != 0) {
            // He may just be about to say it: he must hear that it is too late.
            queue.Forget(std::exchange(late.unheardItem, 0));
            late.Answer(std::string(Submission::forgotten) + "\n");
        }
        Forget(late);
    }
}

void Reception::AddTo(std::vector<pollfd>& watched) const {
    watched.push_back({connections.size() < mostConnections ? listener.Get() : -1, POLLIN, 0});
    for (const Connection& connection : connections) {
        watched.push_back({connection.Descriptor(), static_cast<short>(connection.HasUnsent() ? POLLOUT : POLLIN), 0});
    }
}

void Reception::Take(const std::vector<pollfd>& watched, size_t first) {
    size_t place = first + 1;
    for (auto connection = connections.begin(); connection != connections.end(); ++place) {
        auto next = std::next(connection);
        if (watched[place].revents != 0) {
            Serve(*connection);
        }
        connection = next;
    }
    if (watched[first].revents != 0) {
        Accept();
    }
}

int64_t Reception::NextWake() const {
    int64_t wake = INT64_MAX;
    for (const Connection& connection : connections) {
        wake = std::min(wake, connection.deadline);
    }
    return wake;
}

}  // namespace kelto::halvek::outbox
