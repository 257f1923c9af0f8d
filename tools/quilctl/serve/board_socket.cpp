#include "tools/quilctl/serve/board_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "board/core/lock.h"
#include "board/core/real_calls.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

constexpr int kWaiting = 64;  // clients that are not yet let in

// A socket's path has room for 107 bytes, the way through the directory's descriptor always fits.
sockaddr_un addressBelow(const Descriptor& directory) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + kSocketFile;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

const sockaddr* plain(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

Descriptor openDirectory(const std::filesystem::path& directory) {
    return Descriptor(board::real().open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

// Past the board, which may be going while another thread closes; but not by the C library's own
// function: ThreadSanitizer would take the next file of this number for the same.
Descriptor::~Descriptor() {
    if (mNumber < 0) return;
    const board::Guard guard(board::boardLock());
    close(mNumber);
}

void wake(const Descriptor& descriptor) {
    const uint64_t once = 1;
    [[maybe_unused]] const auto done = board::real().write(descriptor.get(), &once, sizeof(once));
}

void quieten(const Descriptor& descriptor) {
    uint64_t count = 0;
    [[maybe_unused]] const auto done = board::real().read(descriptor.get(), &count, sizeof(count));
}

Descriptor listenIn(const std::filesystem::path& directory) {
    const std::string name = (directory / kSocketFile).string();
    const Descriptor folder = openDirectory(directory);
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!folder.isOpen() || !listener.isOpen()) throw failureOf(kNoBoard, name, errno);
    struct stat there {};
    const bool isOld = fstatat(folder.get(), kSocketFile, &there, AT_SYMLINK_NOFOLLOW) == 0;
    if (isOld && !S_ISSOCK(there.st_mode)) {
        throw Failure(kNoBoard, name + ": is no socket, but stands in the place of one");
    }
    const sockaddr_un address = addressBelow(folder);
    // The socket's own mode is the mode of the file that bind makes.
    if ((isOld && unlinkat(folder.get(), kSocketFile, 0) != 0) ||
        fchmod(listener.get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(listener.get(), plain(address), sizeof(address)) != 0 ||
        listen(listener.get(), kWaiting) != 0) {
        throw failureOf(kNoBoard, name + ": cannot be made", errno);
    }
    return listener;
}

void removeSocket(const std::filesystem::path& directory) {
    unlink((directory / kSocketFile).c_str());
}

std::optional<ServerConnection> ServerConnection::to(const std::filesystem::path& directory) {
    const Descriptor folder = openDirectory(directory);
    Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!folder.isOpen() || !descriptor.isOpen()) return std::nullopt;
    const sockaddr_un address = addressBelow(folder);
    if (connect(descriptor.get(), plain(address), sizeof(address)) != 0) {
        if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTSOCK) return std::nullopt;
        throw failureOf(kNoBoard, (directory / kSocketFile).string(), errno);
    }
    ServerConnection connection(std::move(descriptor));
    const auto greeting = connection.receive("before the board's server answered");
    if (!greeting) throw Failure(kNoBoard, directory.string() + ": its server has just ended");
    if (greeting->value("version", 0) != kProtocol) {
        throw Failure(kNoBoard, directory.string() + ": its server is another version of quilctl");
    }
    connection.mGreeting = *greeting;
    return connection;
}

std::string ServerConnection::server() const {
    return "process " + std::to_string(mGreeting.value("process", 0));
}

void ServerConnection::send(const Request& request) { sendBytes(protocolLine(request)); }

void ServerConnection::sendBytes(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count =
            ::send(mDescriptor.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EPIPE && errno != ECONNRESET) {
            throw failureOf(kNoBoard, "the board's server cannot be asked", errno);
        }
        if (count < 0) return;  // it may have said why it went, which is read next
        sent += static_cast<size_t>(count);
    }
}

std::optional<Json> ServerConnection::heard() {
    const auto line = mLines.next();
    if (!line) return std::nullopt;
    auto document = Json::parse(*line, nullptr, false);
    if (!document.is_object()) throw Failure(kNoBoard, "the board's server answers nonsense");
    if (const auto refusal = document.find("error"); refusal != document.end()) {
        throw Failure(kNoBoard, "the board's server: " + bytesIn(*refusal));
    }
    return document;
}

bool ServerConnection::hear() {
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(mDescriptor.get(), bytes.data(), bytes.size(), 0);
    if (count > 0) mLines.add(bytes.data(), static_cast<size_t>(count));
    return count > 0 || (count < 0 && errno == EINTR);
}

std::optional<Json> ServerConnection::receive(const std::string& toldOfInterruption) {
    for (;;) {
        if (auto document = heard()) return document;
        if (waitToRead(mDescriptor.get()) == Readiness::kInterrupted) {
            const int signal = interruption();
            throw Failure(exitCodeOf(signal),
                          std::string(wordFor(signal)) + " " + toldOfInterruption);
        }
        if (!hear()) return std::nullopt;
    }
}

std::optional<Json> ServerConnection::receiveFor(int timeoutMs) {
    for (;;) {
        if (auto document = heard()) return document;
        const Readiness readiness = waitToRead(mDescriptor.get(), timeoutMs);
        if (readiness == Readiness::kNothing) return Json::object();
        if (readiness == Readiness::kInterrupted || !hear()) return std::nullopt;
    }
}

}  // namespace quil::tools
