// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_SERVICEFIXTURE_H
#define TALLYRA_TESTS_SERVICE_SERVICEFIXTURE_H

#include "StoreFixture.h"
#include "TYServiceHandler.h"
#include "doubles/PlatformDouble.h"

/// A keeper with a file of its own, a clock that the test moves, and the lines that it logs.
class CKeeperTest : public CStoreTest {
  protected:
    CKeeperTest() { m_Platform.Reset(); }

    /// @return the lines logged with this priority or a higher one
    std::vector<std::string> Lines(int priority = LOGSVC_DEBUG) {
        std::vector<std::string> texts;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            if (line.priority >= priority) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }
    std::vector<std::string> Errors() { return Lines(LOGSVC_ERROR); }

    /// @return a batch that needs more than a few pages
    static TYBatch BigBatch(const std::string& playback = "p1") {
        TYBatch batch = BatchOf(playback);
        batch.urls[0] = std::string(100'000, 'u');
        return batch;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CTYStoreKeeper::Clock::time_point m_Now{std::chrono::hours(1000)};
    CTYStoreKeeper m_Keeper{m_File, {}, [this] { return m_Now; }};
};

/// A method call built argument by argument, without the service's own marshalling.
class CCall {
  public:
    explicit CCall(const char* pPath = "/org/veltra/tv/tallyra/service",
                   const char* pInterface = "org.veltra.tv.tallyra.client",
                   const char* pMember = "TYCallFunction")
        : m_pMessage(dbus_message_new_method_call("org.veltra.tv.tallyra.service", pPath,
                                                  pInterface, pMember)) {
        dbus_message_set_serial(Get(), 1);
        From(":1.1");
    }
    CCall(const CCall& other)
        : m_pMessage(dbus_message_copy(other.Get())), m_nIndex(other.m_nIndex) {
        dbus_message_set_serial(Get(), 1);
    }
    CCall& operator=(const CCall&) = delete;

    /// @return a call whose first value is the name of a function
    static CCall Of(const char* pFunction) { return CCall().TextValue(pFunction); }
    /// @return a SendData call with records that have their index as parameter, and URLs "url0",
    /// ...
    static CCall Batch(int images, int urls) {
        CCall call = Of("SendData");
        for (int i = 0; i < images; ++i) {
            call.Record(MakeRecord(TY_EVENT_PLAYBACK_TIME, "p1", i));
        }
        for (int i = 0; i < urls; ++i) {
            call.TextValue("url" + std::to_string(i));
        }
        return call;
    }

    CCall& Int(int value) { return Append(DBUS_TYPE_INT32, value); }
    CCall& Text(const std::string& text) { return Append(DBUS_TYPE_STRING, text.c_str()); }
    CCall& Bytes(std::string_view bytes) {
        return Array(DBUS_TYPE_BYTE, bytes.data(), static_cast<int>(bytes.size()));
    }
    CCall& Array(int type, const void* pValues, int count) {
        dbus_message_append_args(Get(), DBUS_TYPE_ARRAY, type, &pValues, count, DBUS_TYPE_INVALID);
        return *this;
    }

    /// Appends a whole value: index, type, payload.
    CCall& IntValue(int value) { return Int(m_nIndex++).Int(0).Int(value); }
    CCall& TextValue(const std::string& text) { return Int(m_nIndex++).Int(1).Text(text); }
    CCall& Image(std::string_view bytes) { return Int(m_nIndex++).Int(2).Bytes(bytes); }
    CCall& Record(const TYMediaData& record) {
        return Image({reinterpret_cast<const char*>(&record), sizeof(record)});
    }

    CCall& From(const char* pSender) {
        dbus_message_set_sender(Get(), pSender);
        return *this;
    }
    CCall& WithoutReply() {
        dbus_message_set_no_reply(Get(), 1);
        return *this;
    }
    DBusMessage* Get() const { return m_pMessage.get(); }

  private:
    template <class Value>
    CCall& Append(int type, Value value) {
        dbus_message_append_args(Get(), type, &value, DBUS_TYPE_INVALID);
        return *this;
    }

    TYMessagePtr m_pMessage;
    int m_nIndex = 0;
};

/// A handler over a store in a file, with peers of process 42. The user is 1000; peers ":7.…"
/// belong to user 7, and the bus does not know those named ":0.…".
class CHandlerTest : public CKeeperTest {
  protected:
    /// Lets the handler receive a call and serve all that wait.
    /// @return the numbers of the last reply, such as "1 1"; the name of the error; or "nothing"
    std::string Answer(const CCall& call) { return Answer(m_Handler, call); }
    std::string Answer(CTYServiceHandler& handler, const CCall& call) {
        m_Replies.clear();
        Receive(handler, call);
        ServeAll(handler);
        return m_Replies.empty() ? "nothing" : m_Replies.back();
    }
    static void Receive(CTYServiceHandler& handler, const CCall& call) {
        Receive(handler, call.Get());
    }
    // As from the bus.
    static void Receive(CTYServiceHandler& handler, DBusMessage* pMessage) {
        char* pBytes = nullptr;
        int size = 0;
        ASSERT_TRUE(dbus_message_marshal(pMessage, &pBytes, &size));
        CTYMessageReader reader(CTYServiceHandler::kMaxMessage);
        for (std::string_view rest(pBytes, static_cast<std::size_t>(size)); !rest.empty();) {
            const std::span<char> space = reader.Space();
            const std::size_t count = rest.copy(space.data(), space.size());
            reader.Take(count);
            rest.remove_prefix(count);
            while (const std::optional<TYArrival> arrival = reader.Next()) {
                handler.Receive(*arrival);
            }
        }
        EXPECT_FALSE(reader.IsBroken());
        dbus_free(pBytes);
    }
    static void ServeAll(CTYServiceHandler& handler) {
        while (handler.Serve()) {
        }
    }

    /// @return the losses so far, as "reason application records"
    std::vector<std::string> Losses() {
        m_Keeper.Prune();
        return Column(
            "SELECT reason || ' ' || application || ' ' || records FROM losses ORDER BY 1");
    }

    static TYPeerIdentity Identify(const std::string& name) {
        if (name.starts_with(":0.")) {
            return {"bus", name, std::nullopt, std::nullopt};
        }
        return {"bus", name, name.starts_with(":7.") ? 7 : 1000, 42};
    }

    std::vector<std::string> m_Replies;
    const CTYServiceHandler::Send m_Send = [this](const TYMessagePtr& reply) {
        EXPECT_EQ(dbus_message_get_reply_serial(reply.get()), 1U);
        m_Replies.push_back(dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR
                                ? dbus_message_get_error_name(reply.get())
                                : NumbersOf(reply.get()));
    };
    CTYPeers m_Peers{Identify, 0};
    CTYServiceHandler m_Handler{m_Keeper, m_Peers, m_Send};

  private:
    // Checks that the reply is a sequence of values of type 0 (INT32), indices counting from 0.
    static std::string NumbersOf(DBusMessage* pReply) {
        DBusMessageIter iterator;
        dbus_message_iter_init(pReply, &iterator);
        std::string numbers;
        for (int i = 0; dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_INT32; ++i) {
            dbus_int32_t number = 0;
            dbus_message_iter_get_basic(&iterator, &number);
            const int expected[] = {i / 3, 0, number};
            EXPECT_EQ(number, expected[i % 3]) << "argument " << i;
            numbers += i % 3 == 2 ? (numbers.empty() ? "" : " ") + std::to_string(number) : "";
            dbus_message_iter_next(&iterator);
        }
        EXPECT_EQ(dbus_message_iter_get_arg_type(&iterator), DBUS_TYPE_INVALID);
        return numbers;
    }
};

#endif  // TALLYRA_TESTS_SERVICE_SERVICEFIXTURE_H
