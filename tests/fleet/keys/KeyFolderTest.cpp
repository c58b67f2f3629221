// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyFolder.h"

#include "TemporaryFolder.h"
#include "Test.h"
#include "Token.h"

#include <openssl/evp.h>

#include <filesystem>

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::int64_t kNow = 1'795'000'000;

bool IsSignedBy(const std::string& token, const std::string& key) {
    const std::size_t dot = token.rfind('.');
    const Bytes raw = DecodeBase32(key).value();
    const Bytes signature = DecodeBase64Url(token.substr(dot + 1)).value();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pKey(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw.data() + 1, 32), &EVP_PKEY_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> pContext(EVP_MD_CTX_new(),
                                                                           &EVP_MD_CTX_free);
    const Bytes text(token.begin(), token.begin() + static_cast<std::ptrdiff_t>(dot));
    return EVP_DigestVerifyInit(pContext.get(), nullptr, nullptr, nullptr, pKey.get()) == 1 &&
           EVP_DigestVerify(pContext.get(), signature.data(), signature.size(), text.data(),
                            text.size()) == 1;
}

class CKeyFolderTest : public testing::Test {
  protected:
    CKeyFolderTest() { m_Keys.Init({}, kNow); }

    std::string Line(const std::string& file) const {
        const std::string text = m_Folder.Read("keys/" + file);
        return text.substr(0, text.find('\n'));
    }
    std::string PublicKey(const std::string& name) const {
        return CTYNkey::FromSeed(Line("seeds/" + name + ".seed")).Public();
    }
    json Account() const { return ClaimsOf(Line("accounts/TALLYRA.jwt")); }
    /// @return the line of a credentials file that follows one with this text
    static std::string Part(const std::string& credentials, const std::string& mark) {
        const std::size_t begin = credentials.find('\n', credentials.find(mark)) + 1;
        return credentials.substr(begin, credentials.find('\n', begin) - begin);
    }

    CTemporaryFolder m_Folder;
    CTYKeyFolder m_Keys{m_Folder.Path() / "keys"};
};

TEST_F(CKeyFolderTest, OnlyTheOwnerReadsSeeds) {
    int seeds = 0;
    for (const auto& file : fs::directory_iterator(m_Folder.Path() / "keys/seeds")) {
        EXPECT_EQ(file.status().permissions(), fs::perms::owner_read | fs::perms::owner_write);
        ++seeds;
    }
    EXPECT_EQ(seeds, 5);
    EXPECT_EQ(fs::status(m_Folder.Path() / "keys/seeds").permissions(), fs::perms::owner_all);
}

TEST_F(CKeyFolderTest, TheOperatorSignsItselfAndTheAccounts) {
    const std::string key = PublicKey("operator");
    for (const char* pFile : {"operator.jwt", "accounts/SYS.jwt", "accounts/TALLYRA.jwt"}) {
        EXPECT_TRUE(IsSignedBy(Line(pFile), key)) << pFile;
        EXPECT_EQ(ClaimsOf(Line(pFile))["iss"], key);
        EXPECT_EQ(ClaimsOf(Line(pFile))["iat"], kNow);
    }
    EXPECT_EQ(ClaimsOf(Line("operator.jwt"))["nats"]["system_account"], PublicKey("SYS"));
}

TEST_F(CKeyFolderTest, ADeviceIsSignedByTheKeyOfDevices) {
    const std::string credentials = m_Keys.MakeDevice("tv-1", kNow);
    const std::string token = Part(credentials, "BEGIN NATS USER JWT");
    const json claims = ClaimsOf(token);
    EXPECT_TRUE(IsSignedBy(token, PublicKey("device")));
    EXPECT_EQ(claims["name"], "tv-1");
    EXPECT_EQ(claims["nats"]["issuer_account"], PublicKey("TALLYRA"));
    EXPECT_EQ(claims["sub"], CTYNkey::FromSeed(Part(credentials, "BEGIN USER NKEY SEED")).Public());
    EXPECT_FALSE(claims["nats"].contains("pub")) << "rights come from the template alone";
}

TEST_F(CKeyFolderTest, ACollectorIsSignedByTheKeyOfCollectors) {
    const std::string token = Part(m_Keys.MakeCollector("east", kNow), "BEGIN NATS USER JWT");
    EXPECT_TRUE(IsSignedBy(token, PublicKey("collector")));
    EXPECT_FALSE(IsSignedBy(token, PublicKey("device")));
}

TEST_F(CKeyFolderTest, TheTemplatesNameExactlyTheseSubjects) {
    const json keys = Account()["nats"]["signing_keys"];
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0]["key"], PublicKey("device"));
    const json device = keys[0]["template"];
    EXPECT_EQ(
        device["pub"],
        json::parse(R"({"allow":["tallyra.records.{{name()}}.*","tallyra.ask.{{name()}}"]})"));
    EXPECT_EQ(device["sub"],
              json::parse(R"({"allow":["tallyra.stored.{{name()}}","_INBOX.{{name()}}.>"]})"));
    EXPECT_EQ(keys[1]["key"], PublicKey("collector"));
    EXPECT_EQ(keys[1]["template"]["pub"]["deny"], json::parse(R"(["tallyra.records.>"])"));
}

TEST_F(CKeyFolderTest, RevokesAllThatANameEverGot) {
    std::vector<std::string> users;
    for (int i = 0; i < 2; ++i) {
        const std::string token = Part(m_Keys.MakeDevice("tv-1", kNow), "BEGIN NATS USER JWT");
        users.push_back(ClaimsOf(token)["sub"]);
    }
    m_Keys.MakeDevice("tv-2", kNow);
    EXPECT_EQ(m_Keys.Revoke("tv-1", kNow + 5), 2);
    EXPECT_EQ(Account()["nats"]["revocations"], (json{{users[0], kNow + 5}, {users[1], kNow + 5}}));
    EXPECT_TRUE(IsSignedBy(Line("accounts/TALLYRA.jwt"), PublicKey("operator")));
    EXPECT_THAT(m_Folder.Read("keys/resolver.conf"),
                testing::HasSubstr(Line("accounts/TALLYRA.jwt")));
    EXPECT_THROW(m_Keys.Revoke("tv-3", kNow), std::runtime_error);
}

TEST_F(CKeyFolderTest, RefusesNamesThatAreMoreThanAName) {
    for (const std::string& name :
         {std::string(), std::string("a.b"), std::string("*"), std::string(">"), std::string("a b"),
          std::string("../x"), std::string("ä"), std::string("{{name()}}"), std::string(65, 'a'),
          std::string("a\0b", 3)}) {
        EXPECT_THROW(m_Keys.MakeDevice(name, kNow), std::runtime_error) << name;
        EXPECT_THROW(m_Keys.MakeCollector(name, kNow), std::runtime_error) << name;
        EXPECT_THROW(m_Keys.Revoke(name, kNow), std::runtime_error) << name;
    }
    EXPECT_NE(m_Keys.MakeDevice(std::string(64, 'a'), kNow), "");
}

TEST_F(CKeyFolderTest, KeepsItsKeysWhenItIsMadeAgain) {
    const std::string before = PublicKey("operator");
    EXPECT_THROW(m_Keys.Init({}, kNow), std::runtime_error);
    EXPECT_EQ(PublicKey("operator"), before);
}

TEST_F(CKeyFolderTest, NoServerGetsASeed) {
    CTYKeyFolder keys(m_Folder.Path() / "other");
    keys.Init({"a.example", "b.example:5222"}, kNow);
    for (const char* pFile : {"resolver.conf", "a.example.conf", "b.example-5222.conf"}) {
        const std::string text = m_Folder.Read(std::string("other/") + pFile);
        EXPECT_THAT(text, testing::Not(testing::ContainsRegex("S[OAU][A-Z2-7]{56}")));
        EXPECT_NE(text, "") << pFile;
    }
    EXPECT_THAT(m_Folder.Read("other/a.example.conf"),
                testing::HasSubstr("\"tls://b.example:7222\""));
}

TEST_F(CKeyFolderTest, RefusesServersThatAreNone) {
    for (const char* pServer : {"", "a:", "a:x", "a:0", "a:65000", "a b", "\"", "../a", "-a"}) {
        CTYKeyFolder keys(m_Folder.Path() / "other");
        EXPECT_THROW(keys.Init({pServer}, kNow), std::runtime_error) << pServer;
    }
    EXPECT_FALSE(fs::exists(m_Folder.Path() / "other/operator.jwt"));
}

TEST(Token, WhatIsNoTokenHasNoClaims) {
    for (const char* pText : {"", ".", "..", "a.b", "a.!.c", "a.MQ.c"}) {
        EXPECT_THROW(ClaimsOf(pText), std::runtime_error) << pText;
    }
}

}  // namespace
