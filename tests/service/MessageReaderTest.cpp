// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYMessageReader.h"

#include "ServiceFixture.h"

#include <random>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::size_t kMaxMessage = 20'000;

class MessageReader : public testing::Test {
  protected:
    static std::string BytesOf(const CCall& call) {
        char* pBytes = nullptr;
        int size = 0;
        EXPECT_TRUE(dbus_message_marshal(call.Get(), &pBytes, &size));
        std::string bytes(pBytes, static_cast<std::size_t>(size));
        dbus_free(pBytes);
        return bytes;
    }
    static CCall Call(const char* pSender, std::size_t textSize) {
        return CCall::Of("SendData").TextValue(std::string(textSize, 't')).From(pSender);
    }

    /// Feeds bytes in pieces of at most that size.
    void Feed(std::string_view bytes, std::size_t piece = SIZE_MAX) {
        while (!bytes.empty()) {
            const std::span<char> space = m_Reader.Space();
            ASSERT_FALSE(space.empty());
            const std::size_t count = bytes.copy(space.data(), std::min(piece, space.size()));
            m_Reader.Take(count);
            bytes.remove_prefix(count);
            ReadAll();
        }
    }
    void ReadAll() {
        while (const std::optional<TYArrival> arrival = m_Reader.Next()) {
            const TYMessagePtr whole = arrival->Parse();
            m_Read.push_back(std::string(dbus_message_get_sender(arrival->header.get())) + " " +
                             arrival->signature + " " + std::to_string(arrival->bodySize) +
                             (whole != nullptr && HasBody(whole.get()) ? " whole" : " cut"));
        }
    }
    static bool HasBody(DBusMessage* pMessage) {
        return std::string_view(dbus_message_get_signature(pMessage)) == "iisiis";
    }

    CTYMessageReader m_Reader{kMaxMessage};
    std::vector<std::string> m_Read;
};

TEST_F(MessageReader, ReadsMessagesInPiecesOfAnySize) {
    const std::string bytes = BytesOf(Call(":1.1", 3)) + BytesOf(Call(":1.2", 5000));
    for (const std::size_t piece : {1, 7, 16, 100, 4096, 1'000'000}) {
        m_Read.clear();
        Feed(bytes, piece);
        EXPECT_THAT(m_Read, ElementsAre(":1.1 iisiis 40 whole", ":1.2 iisiis 5037 whole"));
    }
}

TEST_F(MessageReader, ReadsTheHeaderOfAMessageThatIsTooLargeAndGoesOnBehindIt) {
    for (const std::size_t size : {kMaxMessage, std::size_t{1'000'000}, std::size_t{3'000'000}}) {
        for (const std::size_t piece : {999, 100'000}) {
            m_Read.clear();
            Feed(BytesOf(Call(":1.1", size)) + BytesOf(Call(":1.2", 3)), piece);
            EXPECT_THAT(m_Read, ElementsAre(":1.1 iisiis " + std::to_string(size + 37) + " cut",
                                            ":1.2 iisiis 40 whole"));
        }
    }
}

TEST_F(MessageReader, DropsAMessageWhoseHeaderIsTooLarge) {
    const std::string path = "/" + std::string(100'000, 'p');
    Feed(BytesOf(CCall(path.c_str()).TextValue("x")) + BytesOf(Call(":1.2", 3)), 1000);
    EXPECT_THAT(m_Read, ElementsAre(":1.2 iisiis 40 whole"));
}

TEST_F(MessageReader, ReadsMessagesInTheOtherByteOrder) {
    // A big-endian Kick: the header's fields are destination, path and sender.
    const std::string fields = std::string("\x06\1s\0\0\0\0\4:1.9\0\0\0\0", 16) +
                               std::string("\7\1s\0\0\0\0\4:1.8\0\0\0\0", 16) +
                               std::string("\1\1o\0\0\0\0\2/a\0\0\0\0\0\0", 16) +
                               std::string("\3\1s\0\0\0\0\1M\0\0\0\0\0\0\0", 16) +
                               std::string("\x08\1g\0\1i\0", 7);
    const std::string body("\0\0\0\7", 4);
    const std::string fixed("B\1\0\1\0\0\0\4\0\0\0\1\0\0\0\x47", 16);
    Feed(fixed + fields + std::string(1, '\0') + body, 5);
    EXPECT_FALSE(m_Reader.IsBroken());
    EXPECT_THAT(m_Read, ElementsAre(":1.8 i 4 cut"));
}

TEST_F(MessageReader, StopsAtBytesThatAreNoMessage) {
    Feed(BytesOf(Call(":1.1", 3)));
    Feed(std::string(64, 'x'));
    EXPECT_TRUE(m_Reader.IsBroken());
    m_Read.clear();
    Feed(BytesOf(Call(":1.2", 3)));
    EXPECT_THAT(m_Read, IsEmpty());
}

TEST_F(MessageReader, SurvivesAnyBytes) {
    const std::string good = BytesOf(Call(":1.1", 3)) + BytesOf(Call(":1.2", 30'000));
    std::mt19937 random(1);
    int broken = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string bytes = good;
        bytes[random() % 200] = static_cast<char>(random());
        CTYMessageReader reader(kMaxMessage);
        const std::span<char> space = reader.Space();
        reader.Take(bytes.copy(space.data(), space.size()));
        for (int k = 0; k < 3 && !reader.IsBroken(); ++k) {
            reader.Next();
        }
        broken += reader.IsBroken() ? 1 : 0;
    }
    EXPECT_GT(broken, 100);
    EXPECT_LT(broken, 2900);
}

}  // namespace
