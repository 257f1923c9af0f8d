// The socket of a served board: "socket" in its directory, for its user alone.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "board/board_directory.h"
#include "tools/quilctl/serve/protocol.h"

namespace quil::tools {

using board::kSocketFile;

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : mNumber(number) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : mNumber(std::exchange(other.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(mNumber, other.mNumber);
        return *this;
    }
    int get() const { return mNumber; }
    bool isOpen() const { return mNumber >= 0; }

  private:
    int mNumber;
};

// For a descriptor of eventfd, which can be read from a wake to the next quieten.
void wake(const Descriptor& descriptor);
void quieten(const Descriptor& descriptor);

// Only for the owner of the directory: a socket that a killed server has left is replaced. Throws
// Failure.
Descriptor listenIn(const std::filesystem::path& directory);
void removeSocket(const std::filesystem::path& directory);

// A client's end.
class ServerConnection {
  public:
    // None when nobody serves the directory. Throws Failure when it cannot be talked to.
    static std::optional<ServerConnection> to(const std::filesystem::path& directory);

    // What the server says first: its process and the board's directory.
    const Json& greeting() const { return mGreeting; }
    std::string server() const;  // "process 123"
    // Fails silently if the server has ended: what is received then is its refusal, or nothing.
    void send(const Request& request);
    void sendBytes(const std::string& bytes);
    // The next line. None when the server has ended. Its refusal throws Failure; an interruption of
    // the program does so with `toldOfInterruption`.
    std::optional<Json> receive(const std::string& toldOfInterruption);
    // The same; an empty object when none comes in that time, none also at an interruption. -1: no
    // limit.
    std::optional<Json> receiveFor(int timeoutMs);

  private:
    explicit ServerConnection(Descriptor descriptor) : mDescriptor(std::move(descriptor)) {}

    std::optional<Json> heard();  // the next line that has been read already
    bool hear();                  // false: the server has ended

    Descriptor mDescriptor;
    Lines mLines;
    Json mGreeting;
};

}  // namespace quil::tools
