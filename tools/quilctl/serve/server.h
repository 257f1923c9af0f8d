// The server's end of a served board's socket: a thread outside board time, which reads and writes
// for all clients. A client that does not read never holds anybody up.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "board/core/trace.h"
#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/serve/protocol.h"
#include "tools/quilctl/session/exclusive.h"

namespace quil::tools {

class Server {
  public:
    using ClientId = uint64_t;
    struct Job {
        ClientId client;
        Request request;
    };
    using AtOnce = std::function<void(const Job&)>;

    static constexpr ClientId kNobody = 0;  // whose turn it is when callOwner has asked for one
    static constexpr size_t kClientsMost = 100;
    // What waits for a client: an answer that is longer ends the connection, events beyond are
    // counted and dropped.
    static constexpr size_t kAnswerMost = size_t{64} << 20, kEventsMost = size_t{4} << 20;

    // `atOnce` runs the commands that do not wait for their turn, on the server's thread.
    Server(Descriptor listener, const std::string& directory, AtOnce atOnce);
    ~Server();  // what was said is still sent, as far as clients read it at once
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The next command that waits for its turn. None after close, or when the program is asked to
    // end.
    std::optional<Job> next();
    void close();

    // From any thread.
    void callOwner();  // a turn for who calls next(), behind the commands that wait
    void say(ClientId client, const Json& what);
    void finish(ClientId client, int exitCode);  // its next request may come
    void tell(const board::Event& event);        // those who watch

  private:
    struct Client {
        Descriptor socket;
        Lines in{};
        std::string out{};
        bool isBusy = false, isLeaving = false;
        bool watches = false;
        std::set<std::string> kinds{};
        uint64_t lost = 0;  // events, not yet told
    };

    void serve();
    void pollOnce(int timeoutMs);
    void letIn();
    void hear(ClientId id, Client& client);
    void takeLines(ClientId id, Client& client);
    void takeRequest(ClientId id, Client& client, const std::string& line);
    // Both return true if events are left.
    bool deliver();
    bool deliverEvents();
    static void send(Client& client);
    void dismiss();

    const Descriptor mListener;
    const std::string mGreeting;
    const AtOnce mAtOnce;
    const Descriptor mWake, mJobWake;
    std::atomic<bool> mEnds{false};
    std::atomic<size_t> mWatchers{0};

    Exclusive mLock;  // of what follows
    bool mIsClosed = false;
    std::deque<Job> mJobs;
    std::vector<std::pair<ClientId, std::string>> mSaid;
    std::vector<ClientId> mFinished;
    std::deque<board::Event> mEvents;
    uint64_t mEventsLost = 0;

    // The server's thread alone.
    std::map<ClientId, Client> mClients;
    ClientId mNextClient = 1;
    std::thread mThread;
};

}  // namespace quil::tools
