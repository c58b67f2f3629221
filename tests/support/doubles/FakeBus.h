// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_FAKEBUS_H
#define TALLYRA_TESTS_SUPPORT_FAKEBUS_H

#include "ITYBus.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

/// A bus without a bus: hands out a connection that nobody may use, answers calls at once as it is
/// told, and keeps them. Any step can be made to fail.
///
/// Threads: calls come from any; what it keeps may be read at any time. Set it up first.
class CFakeBus : public ITYBus {
  public:
    /// An argument of a message: INT32, STRING or ARRAY of BYTE.
    using Argument = std::variant<std::int32_t, std::string, std::vector<char>>;
    using Arguments = std::vector<Argument>;

    /// One call as it went out.
    struct Call {
        std::string destination;
        std::string path;
        std::string interface;
        std::string member;
        std::string signature;
        Arguments arguments;
        int timeoutMs;

        /// The function that the call names, which is its third argument.
        std::string Function() const { return std::get<std::string>(arguments.at(2)); }
    };

    /// What a call is answered with: a body; or, where `error` has a text, that error.
    struct Reply {
        Arguments body;
        std::string error;
        const char* pErrorName = DBUS_ERROR_NO_REPLY;
    };

    bool InitThreads() override;
    DBusConnection* GetPrivate(DBusError* pError) override;
    bool NameHasOwner(DBusConnection* pConnection, const char* pName) override;
    DBusMessage* NewMethodCall(const char* pDestination, const char* pPath, const char* pInterface,
                               const char* pMember) override;
    DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                       int timeoutMs, DBusError* pError) override;
    void Close(DBusConnection* pConnection) override;

    /// @return a reply with that body, to be freed with dbus_message_unref
    static DBusMessage* MakeMessage(const Arguments& body);
    /// Appends arguments to a message.
    static void Append(DBusMessage* pMessage, const Arguments& body);
    /// @return the arguments of a message
    static Arguments Read(DBusMessage* pMessage);
    /// @return the triples of a status and one value, as the service answers
    static Reply Status(std::int32_t status, std::int32_t value);

    // Set these before the code under test runs.
    std::string connectError;
    bool connectNull = false;
    bool outOfMessages = false;
    /// Called on the calling thread before a call is answered.
    std::function<void(const Call&)> onCall;
    /// Called on the calling thread before it is told whether the service is there.
    std::function<void()> onLook;
    std::map<std::string, Reply> replies{
        {"GetPolicyInfo", Status(1, 1)}, {"SendData", Status(1, 1)}, {"Kick", {{0, 0, 1}, ""}}};

    /// Has the service appear or vanish.
    void SetOwner(bool owner);
    void SetReply(const std::string& function, Reply reply);

    std::vector<Call> Calls();
    std::vector<Call> Calls(const std::string& function);
    /// @return whether there were `count` calls of a function before the time was over
    bool WaitForCalls(const std::string& function, std::size_t count,
                      std::chrono::milliseconds time = std::chrono::seconds(30));
    /// @return how many times an operation of the seam was called, by its name
    std::size_t Count(const std::string& operation);
    /// @return in order, the operations of the seam and the functions that were called
    std::vector<std::string> Journal();

  private:
    void Note(const std::string& operation);
    std::size_t CountCalls(const std::string& function) const;

    std::mutex m_Mutex;
    std::condition_variable m_Called;
    bool m_bOwner = true;
    std::vector<Call> m_Calls;
    std::vector<std::string> m_Journal;
};

#endif  // TALLYRA_TESTS_SUPPORT_FAKEBUS_H
