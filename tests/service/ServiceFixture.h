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

/// A handler over a store in a file, with peers of user 1000 and process 42.
class CHandlerTest : public CKeeperTest {
  protected:
    /// @return the numbers of the reply, such as "1 1"; the name of the error; or "nothing"
    std::string Answer(const CCall& call) { return Answer(m_Handler, call); }
    static std::string Answer(CTYServiceHandler& handler, const CCall& call) {
        const auto reply = handler.Handle(call.Get());
        if (reply == nullptr) {
            return "nothing";
        }
        EXPECT_EQ(dbus_message_get_reply_serial(reply.get()), 1U);
        if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            return dbus_message_get_error_name(reply.get());
        }
        return NumbersOf(reply.get());
    }

    static TYPeerIdentity Identify(const std::string& name) { return {"bus", name, 1000, 42}; }

    CTYPeers m_Peers{Identify, 0};
    CTYServiceHandler m_Handler{m_Keeper, m_Peers};

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
