// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_FAKEBUS_H
#define TALLYRA_TESTS_SUPPORT_FAKEBUS_H

#include "ITYBus.h"
#include "TYMessagePtr.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <variant>
#include <vector>

/// A bus without a process or a socket: answers calls as it is told, and keeps each call as the
/// bytes that a socket would carry. Messages are libdbus's own; connections are not.
///
/// Any step can fail, and no step takes real time: an operation that waits calls `onWait`.
///
/// Threads: operations come from any; what was kept may be read at any time. Set up the public
/// members first.
class CFakeBus : public ITYBus {
  public:
    /// An argument of a message: INT32, STRING or ARRAY of BYTE.
    using Argument = std::variant<std::int32_t, std::string, std::vector<char>>;
    using Arguments = std::vector<Argument>;

    /// What a call is answered with: a body; or, where `error` has a text, that error.
    struct Reply {
        Arguments body;
        std::string error;
        const char* pErrorName = DBUS_ERROR_NO_REPLY;
        /// How much later the reply arrives.
        std::chrono::milliseconds after{0};
        bool never = false;

        static Reply Never() { return {{}, "", "", std::chrono::milliseconds(0), true}; }
    };

    /// One call as the service, or the bus itself, reads it.
    struct Call {
        std::string destination;
        std::string path;
        std::string interface;
        std::string member;
        std::string signature;
        Arguments arguments;
        /// How long the caller waits for the reply.
        int timeoutMs;
        /// The whole message. Serials of calls to the service count from 1.
        std::string bytes;
        Reply reply;

        /// The service's function that the call names, which is its third argument.
        std::string Function() const { return std::get<std::string>(arguments.at(2)); }
    };

    bool InitThreads() override {
        Note("InitThreads");
        return dbus_threads_init_default() != FALSE;
    }
    void SetChangeSigpipe(bool change) override {
        Note(change ? "SetChangeSigpipe true" : "SetChangeSigpipe false");
    }
    DBusConnection* OpenPrivate(const char* pAddress, DBusError* pError) override;
    bool SetUniqueName(DBusConnection* /*pConnection*/, const char* /*pName*/) override {
        return !failing.contains("SetUniqueName");
    }
    bool IsConnected(DBusConnection* pConnection) override { return Of(pConnection)->open; }
    bool IsAuthenticated(DBusConnection* pConnection) override {
        return Of(pConnection)->authenticated;
    }
    bool HasMessagesToSend(DBusConnection* pConnection) override {
        return !Of(pConnection)->queued.empty();
    }
    bool Send(DBusConnection* pConnection, DBusMessage* pMessage, dbus_uint32_t* pSerial) override;
    bool ReadWrite(DBusConnection* pConnection, int timeoutMs) override;
    DBusMessage* PopMessage(DBusConnection* pConnection) override;
    void Close(DBusConnection* pConnection) override;
    void Unref(DBusConnection* pConnection) override;
    DBusMessage* NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember) override;
    bool AppendString(DBusMessage* pMessage, const char* pText) override {
        return !failing.contains("AppendString") &&
               dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID) != 0;
    }
    int GetSocket(DBusConnection* pConnection) override { return Of(pConnection)->socket; }
    bool Stat(int socket, struct stat* pStatus) override;
    int Unread(int socket) override;
    void Poll(pollfd* pWaited, int timeoutMs) override;

    /// @return a reply with that body, to be freed with dbus_message_unref
    static DBusMessage* MakeMessage(const Arguments& body) {
        DBusMessage* pMessage = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
        Append(pMessage, body);
        return pMessage;
    }
    /// Appends arguments to a message.
    static void Append(DBusMessage* pMessage, const Arguments& body);
    /// @return the arguments of a message
    static Arguments Read(DBusMessage* pMessage);
    /// @return the triples of a status and one value, as the service answers
    static Reply Status(std::int32_t status, std::int32_t value) {
        return {{0, 0, status, 1, 0, value}, ""};
    }

    // Set these before the code under test runs.
    std::string connectError;
    bool connectNull = false;
    /// Operations that fail as on an allocation failure, by name.
    std::set<std::string> failing;
    /// The handshake never ends.
    bool handshakeStalls = false;
    /// Called on the calling thread before a call is answered.
    std::function<void(const Call&)> onCall;
    /// Called on the calling thread before it is told whether the service is there.
    std::function<void()> onLook;
    /// Lets time pass where an operation waits. Without one the thread sleeps.
    std::function<void(std::chrono::milliseconds)> onWait;
    std::map<std::string, Reply> replies{
        {"GetPolicyInfo", Status(1, 1)}, {"SendData", Status(1, 1)}, {"Kick", {{0, 0, 1}, ""}}};

    /// Has the service appear or vanish.
    void SetOwner(bool owner) { m_bOwner = owner; }
    void SetReply(const std::string& function, Reply reply) {
        const std::lock_guard lock(m_Mutex);
        replies[function] = std::move(reply);
    }
    /// A silent bus takes messages and does nothing with them until it speaks again.
    void SetSilent(bool silent) { m_bSilent = silent; }
    /// A full socket takes no bytes.
    void SetFull(bool full) { m_bFull = full; }
    /// Breaks all connections, as when the bus dies.
    void Disconnect() {
        ForAll([](Connection& connection) { connection.open = false; });
    }
    /// The numbers of all sockets get another meaning, or none.
    enum class Loss { Reused, Closed };
    void LoseSockets(Loss loss);
    /// Has a message arrive on all connections. It takes over the reference.
    void Push(DBusMessage* pMessage);

    /// @return the calls to the service
    std::vector<Call> Calls() { return Copy(m_Calls); }
    /// @return the calls of one function of the service
    std::vector<Call> Calls(const std::string& function);
    /// @return the calls to the bus itself
    std::vector<Call> BusCalls() { return Copy(m_BusCalls); }
    /// @return whether there were `count` calls of a function before the time was over
    bool WaitForCalls(const std::string& function, std::size_t count,
                      std::chrono::milliseconds time = std::chrono::seconds(30));
    /// @return how many times an operation of the seam was called, by its name
    std::size_t Count(const std::string& operation) {
        return static_cast<std::size_t>(std::ranges::count(Journal(), operation));
    }
    /// @return in order, the operations that open, send and close, the functions of the service and
    ///         of the bus that were called
    std::vector<std::string> Journal() { return Copy(m_Journal); }
    /// @return in order, how long each operation waited that did wait
    std::vector<int> Waits() { return Copy(m_Waits); }
    /// @return whether messages wait for one of these: the socket, the caller
    bool HasPending();

  protected:
    /// @return the answer to a call of the service; may be overridden
    virtual TYMessagePtr Answer(const Call& call) { return MakeReply(call.reply); }
    static TYMessagePtr MakeReply(const Reply& reply);

  private:
    struct Arriving {
        std::chrono::milliseconds in;
        TYMessagePtr message;
    };
    struct Connection {
        int socket;
        ino_t inode;
        bool open = true;
        bool authenticated = false;
        int timeoutMs = 0;
        std::deque<TYMessagePtr> queued;   // by the caller
        std::deque<TYMessagePtr> taken;    // by the socket
        std::list<Arriving> arriving;      // at the socket
        std::deque<TYMessagePtr> arrived;  // at the caller
    };

    static Call ReadCall(DBusMessage* pMessage, int timeoutMs);
    /// A connection and the bus's lock.
    struct Locked {
        std::unique_lock<std::mutex> lock;
        Connection* pConnection;
        Connection* operator->() const { return pConnection; }
    };
    Locked Of(DBusConnection* pConnection) {
        return {std::unique_lock(m_Mutex), reinterpret_cast<Connection*>(pConnection)};
    }
    template <class List>
    List Copy(const List& list) {
        const std::lock_guard lock(m_Mutex);
        return list;
    }
    template <class Change>
    void ForAll(const Change& change) {
        const std::lock_guard lock(m_Mutex);
        std::for_each(m_Connections.begin(), m_Connections.end(), change);
    }
    Connection* WithSocket(int socket) {
        const auto found = std::ranges::find(m_Connections, socket, &Connection::socket);
        return found == m_Connections.end() ? nullptr : &*found;
    }
    void Note(const std::string& operation) {
        const std::lock_guard lock(m_Mutex);
        m_Journal.push_back(operation);
    }
    void Wait(std::chrono::milliseconds time);
    void Exchange(Connection& connection);
    TYMessagePtr TakeForAnswer(Connection& connection);
    void AnswerMessage(Connection& connection, DBusMessage* pMessage);
    TYMessagePtr AnswerOfBus(const Call& call);
    TYMessagePtr AnswerOfService(Call call, std::chrono::milliseconds* pAfter);

    std::mutex m_Mutex;
    std::condition_variable m_Called;
    std::atomic<bool> m_bOwner = true;
    std::atomic<bool> m_bSilent = false;
    std::atomic<bool> m_bFull = false;
    std::uint32_t m_nServiceSerial = 0;
    std::uint32_t m_nBusSerial = 0x40000000;
    std::list<Connection> m_Connections;
    std::vector<Call> m_Calls;
    std::vector<Call> m_BusCalls;
    std::vector<std::string> m_Journal;
    std::vector<int> m_Waits;
};

#endif  // TALLYRA_TESTS_SUPPORT_FAKEBUS_H
