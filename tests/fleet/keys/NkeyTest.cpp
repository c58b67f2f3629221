// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYNkey.h"

#include "Test.h"

#include <nats/nats.h>

namespace {

struct FreeBytes {
    void operator()(unsigned char* pBytes) const { free(pBytes); }
};

TEST(Nkey, SignsAsTheClientOfDevicesDoes) {
    const CTYNkey key = CTYNkey::Make(NkeyKind::USER);
    unsigned char* pSignature = nullptr;
    int size = 0;
    ASSERT_EQ(nats_Open(-1), NATS_OK);
    ASSERT_EQ(nats_Sign(key.Seed().c_str(), "a nonce", &pSignature, &size), NATS_OK);
    const std::unique_ptr<unsigned char, FreeBytes> owner(pSignature);
    EXPECT_EQ(key.Sign("a nonce"), Bytes(pSignature, pSignature + size));
    EXPECT_NE(key.Sign("a nonce"), key.Sign("another nonce"));
}

TEST(Nkey, BeginsWithTheLetterOfItsKind) {
    EXPECT_EQ(CTYNkey::Make(NkeyKind::OPERATOR).Public().at(0), 'O');
    EXPECT_EQ(CTYNkey::Make(NkeyKind::ACCOUNT).Public().at(0), 'A');
    EXPECT_EQ(CTYNkey::Make(NkeyKind::USER).Public().at(0), 'U');
    EXPECT_EQ(CTYNkey::Make(NkeyKind::OPERATOR).Seed().substr(0, 2), "SO");
    EXPECT_EQ(CTYNkey::Make(NkeyKind::ACCOUNT).Seed().substr(0, 2), "SA");
    EXPECT_EQ(CTYNkey::Make(NkeyKind::USER).Seed().substr(0, 2), "SU");
}

// The key pair of the first test vector of RFC 8032, and its texts.
TEST(Nkey, HasTheTextsOfAKnownKey) {
    Bytes seed = {18 << 3 | 20 >> 2, (20 << 3 & 31) << 3};
    const Bytes raw = {0x9d, 0x61, 0xb1, 0x9d, 0xef, 0xfd, 0x5a, 0x60, 0xba, 0x84, 0x4a,
                       0xf4, 0x92, 0xec, 0x2c, 0xc4, 0x44, 0x49, 0xc5, 0x69, 0x7b, 0x32,
                       0x69, 0x19, 0x70, 0x3b, 0xac, 0x03, 0x1c, 0xae, 0x7f, 0x60};
    seed.insert(seed.end(), raw.begin(), raw.end());
    const std::uint16_t crc = Crc16(seed);
    seed.push_back(crc & 0xff);
    seed.push_back(crc >> 8);
    const CTYNkey key = CTYNkey::FromSeed(EncodeBase32(seed));
    EXPECT_EQ(key.Seed(), EncodeBase32(seed));
    const Bytes bytes = DecodeBase32(key.Public()).value();
    EXPECT_THAT(Bytes(bytes.begin(), bytes.begin() + 5),
                testing::ElementsAre(20 << 3, 0xd7, 0x5a, 0x98, 0x01));
    EXPECT_EQ(bytes.size(), 35U);
}

TEST(Nkey, ComesBackFromItsSeed) {
    for (const NkeyKind kind : {NkeyKind::OPERATOR, NkeyKind::ACCOUNT, NkeyKind::USER}) {
        const CTYNkey key = CTYNkey::Make(kind);
        EXPECT_EQ(CTYNkey::FromSeed(key.Seed()).Public(), key.Public());
    }
}

TEST(Nkey, IsDifferentEachTime) {
    EXPECT_NE(CTYNkey::Make(NkeyKind::USER).Seed(), CTYNkey::Make(NkeyKind::USER).Seed());
}

TEST(Nkey, RefusesASeedWithOneWrongCharacter) {
    const std::string seed = CTYNkey::Make(NkeyKind::USER).Seed();
    for (std::size_t i = 0; i < seed.size(); ++i) {
        std::string wrong = seed;
        wrong[i] = wrong[i] == 'A' ? 'B' : 'A';
        EXPECT_THROW(CTYNkey::FromSeed(wrong), std::runtime_error) << i;
    }
}

TEST(Nkey, RefusesWhatIsNoSeed) {
    const CTYNkey key = CTYNkey::Make(NkeyKind::USER);
    for (const std::string& text : {std::string(), std::string("S"), key.Public(), key.Seed() + "A",
                                    key.Seed().substr(1), key.Seed() + "\n"}) {
        EXPECT_THROW(CTYNkey::FromSeed(text), std::runtime_error) << text.size();
    }
}

TEST(Encodings, HaveTheirKnownTexts) {
    const Bytes foobar = {'f', 'o', 'o', 'b', 'a', 'r'};
    EXPECT_EQ(EncodeBase32(foobar), "MZXW6YTBOI");
    EXPECT_EQ(EncodeBase32(std::span(foobar).first(4)), "MZXW6YQ");
    EXPECT_EQ(EncodeBase64Url("foobar"), "Zm9vYmFy");
    EXPECT_EQ(EncodeBase64Url("fooba"), "Zm9vYmE");
    EXPECT_EQ(EncodeBase64Url(Bytes{0xfb, 0xff}), "-_8");
    const std::string digits = "123456789";
    EXPECT_EQ(Crc16(Bytes(digits.begin(), digits.end())), 0x31c3);
}

TEST(Encodings, DecodeOnlyWhatTheyMake) {
    EXPECT_EQ(DecodeBase32("MZXW6YQ"), (Bytes{'f', 'o', 'o', 'b'}));
    EXPECT_EQ(DecodeBase32("MZXW6YR"), std::nullopt) << "a bit behind the last byte is set";
    EXPECT_EQ(DecodeBase32("mzxw6yq"), std::nullopt);
    EXPECT_EQ(DecodeBase64Url("Zm9vYmE="), std::nullopt);
    EXPECT_EQ(DecodeBase64Url("Z"), std::nullopt);
    EXPECT_EQ(DecodeBase64Url(""), Bytes());
}

}  // namespace
