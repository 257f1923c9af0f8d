#include "tools/quilctl/serve/server.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <mutex>

#include "board/core/real_calls.h"
#include "tools/quilctl/session/interruption.h"
#include "tools/quilctl/traces/event_arguments.h"

namespace quil::tools {
namespace {

using ServerLocked = std::lock_guard<Exclusive>;

constexpr size_t kEventsWaiting = 20000, kEventsAtOnce = 256;
constexpr int kNoLimit = -1, kLastSends = 20, kBetweenLastSendsMs = 20;

}  // namespace

Server::Server(Descriptor listener, const std::string& directory, AtOnce atOnce)
    : mListener(std::move(listener)),
      mGreeting(protocolLine(
          Json{{"version", kProtocol}, {"process", getpid()}, {"board", jsonOfBytes(directory)}})),
      mAtOnce(std::move(atOnce)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mJobWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mThread([this] { serve(); }) {}

Server::~Server() {
    mEnds = true;
    wake(mWake);
    mThread.join();
}

std::optional<Server::Job> Server::next() {
    while (waitToRead(mJobWake.get()) != Readiness::kInterrupted) {
        const ServerLocked locked(mLock);
        if (mIsClosed) return std::nullopt;
        if (mJobs.empty()) {
            quieten(mJobWake);
            continue;
        }
        Job job = std::move(mJobs.front());
        mJobs.pop_front();
        return job;
    }
    return std::nullopt;
}

void Server::close() {
    const ServerLocked locked(mLock);
    mIsClosed = true;
    wake(mJobWake);
}

void Server::callOwner() {
    const ServerLocked locked(mLock);
    if (mJobs.empty() || mJobs.back().client != kNobody) mJobs.push_back({kNobody, {}});
    wake(mJobWake);
}

void Server::say(ClientId client, const Json& what) {
    std::string line = protocolLine(what);
    const ServerLocked locked(mLock);
    mSaid.emplace_back(client, std::move(line));
    wake(mWake);
}

void Server::finish(ClientId client, int exitCode) {
    say(client, {{"exit", exitCode}});
    const ServerLocked locked(mLock);
    mFinished.push_back(client);
    wake(mWake);
}

void Server::tell(const board::Event& event) {
    if (mWatchers == 0) return;
    const ServerLocked locked(mLock);
    if (mEvents.size() >= kEventsWaiting) {
        ++mEventsLost;
        return;
    }
    mEvents.push_back(event);
    if (mEvents.size() == 1) wake(mWake);
}

void Server::serve() {
    while (!mEnds) pollOnce(kNoLimit);
    const auto waits = [](const auto& one) { return !one.second.out.empty(); };
    while (deliver()) {
    }
    for (int i = 0; i < kLastSends; ++i) {
        deliver();
        if (std::none_of(mClients.begin(), mClients.end(), waits)) return;
        board::real().poll(nullptr, 0, kBetweenLastSendsMs);
    }
}

void Server::pollOnce(int timeoutMs) {
    std::vector<pollfd> entries = {{mWake.get(), POLLIN, 0}, {mListener.get(), POLLIN, 0}};
    std::vector<ClientId> ids;
    for (const auto& [id, client] : mClients) {
        const int events = (client.isBusy ? 0 : POLLIN) | (client.out.empty() ? 0 : POLLOUT);
        entries.push_back({client.socket.get(), static_cast<short>(events), 0});
        ids.push_back(id);
    }
    if (board::real().poll(entries.data(), entries.size(), timeoutMs) < 0) return;
    if (entries[0].revents != 0) quieten(mWake);
    for (size_t i = 0; i < ids.size(); ++i) {
        Client& client = mClients.at(ids[i]);
        const short found = entries[i + 2].revents;
        if ((found & (POLLHUP | POLLERR)) != 0) client.isLeaving = true;
        if ((found & POLLIN) != 0 && !client.isLeaving) hear(ids[i], client);
    }
    deliver();
    dismiss();
    if (entries[1].revents != 0) letIn();
}

void Server::letIn() {
    Descriptor socket(accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isOpen()) return;
    Client client{std::move(socket)};
    client.out = mGreeting;
    if (mClients.size() >= kClientsMost) {
        client.out += protocolLine(
            Json{{"error", "it has " + std::to_string(kClientsMost) + " clients already"}});
        return send(client);
    }
    send(client);
    mClients.emplace(mNextClient++, std::move(client));
}

void Server::hear(ClientId id, Client& client) {
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(client.socket.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return void(client.isLeaving = true);
    client.in.add(bytes.data(), static_cast<size_t>(count));
    takeLines(id, client);
}

void Server::takeLines(ClientId id, Client& client) {
    while (!client.isBusy && !client.isLeaving) {
        const auto line = client.in.next();
        if (line) {
            takeRequest(id, client, *line);
        } else if (client.in.waiting() > kLongestRequest) {
            client.out += protocolLine(Json{{"error", "the request is too long"}});
            send(client);
            client.isLeaving = true;
        } else {
            return;
        }
    }
}

void Server::takeRequest(ClientId id, Client& client, const std::string& line) {
    Request request;
    try {
        request = requestIn(line);
    } catch (const Failure& failure) {
        client.out += protocolLine(Json{{"error", failure.what()}});
        send(client);
        client.isLeaving = true;
        return;
    }
    if (request.kind == Request::Kind::kWatch) {
        while (deliverEvents()) {  // what was before is for those who have watched
        }
        if (!client.watches) ++mWatchers;
        client.watches = true;
        client.kinds = std::move(request.kinds);
        client.out += protocolLine(Json{{"watching", true}});
        return;
    }
    if (request.atOnce) return mAtOnce({id, std::move(request)});
    client.isBusy = true;
    const ServerLocked locked(mLock);
    mJobs.push_back({id, std::move(request)});
    wake(mJobWake);
}

// What other threads have said, to the clients that are still there. Answers come first, then some
// of the events: a command's end does not wait for those who watch.
bool Server::deliver() {
    std::vector<std::pair<ClientId, std::string>> said;
    std::vector<ClientId> finished;
    {
        const ServerLocked locked(mLock);
        said.swap(mSaid);
        finished.swap(mFinished);
    }
    for (const auto& [id, line] : said) {
        const auto found = mClients.find(id);
        if (found == mClients.end()) continue;
        found->second.out += line;
        if (found->second.out.size() > kAnswerMost) found->second.isLeaving = true;
        send(found->second);
    }
    const bool isMore = deliverEvents();
    for (auto& [id, client] : mClients) send(client);
    for (const ClientId id : finished) {
        const auto found = mClients.find(id);
        if (found == mClients.end()) continue;
        found->second.isBusy = false;
        takeLines(id, found->second);
    }
    return isMore;
}

bool Server::deliverEvents() {
    std::vector<board::Event> events;
    uint64_t lost = 0;
    bool isMore = false;
    {
        const ServerLocked locked(mLock);
        const auto end =
            mEvents.begin() + static_cast<ptrdiff_t>(std::min(mEvents.size(), kEventsAtOnce));
        std::move(mEvents.begin(), end, std::back_inserter(events));
        mEvents.erase(mEvents.begin(), end);
        isMore = !mEvents.empty();
        if (isMore) wake(mWake);
        std::swap(lost, mEventsLost);
    }
    for (auto& [id, client] : mClients) {
        if (client.watches) client.lost += lost;
    }
    for (const board::Event& event : events) {
        const std::string kind = board::nameOf(event.kind);
        std::string line;
        for (auto& [id, client] : mClients) {
            if (!client.watches) continue;
            if (!client.kinds.empty() && client.kinds.count(kind) == 0) continue;
            if (client.out.size() > kEventsMost) {
                ++client.lost;
                continue;
            }
            if (client.lost > 0) client.out += protocolLine(Json{{"lost", client.lost}});
            client.lost = 0;
            if (line.empty()) line = protocolLine(Json{{"event", documentOf(argumentsOf(event))}});
            client.out += line;
        }
    }
    return isMore;
}

void Server::send(Client& client) {
    while (!client.out.empty()) {
        const ssize_t count = ::send(client.socket.get(), client.out.data(), client.out.size(),
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EAGAIN) client.isLeaving = true;
        if (count < 0) return;
        client.out.erase(0, static_cast<size_t>(count));
    }
}

// A command that waits for its turn is dropped with its client, one that runs comes to its end.
void Server::dismiss() {
    for (auto one = mClients.begin(); one != mClients.end();) {
        if (!one->second.isLeaving) {
            ++one;
            continue;
        }
        {
            const ServerLocked locked(mLock);
            std::erase_if(mJobs, [&](const Job& job) { return job.client == one->first; });
        }
        if (one->second.watches) --mWatchers;
        one = mClients.erase(one);
    }
}

}  // namespace quil::tools
