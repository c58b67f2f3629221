// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetFixture.h"
#include "TYForwarder.h"

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

/// The servers and a collector, as a device sees them. Waiting for a message moves the time.
class CFakeFleet : public ITYFleetLink {
  public:
    std::string Inbox() override { return "_INBOX.tv1.x"; }
    void Subscribe(const std::string& subject) override { m_Subjects.push_back(subject); }
    void Publish(const TYMessage& message) override {
        m_Published.push_back(message);
        if (message.subject == "tallyra.ask.tv1") {
            m_pAnswer ? m_pAnswer(message) : void();
        } else {
            m_pTake(message);
        }
    }
    std::optional<TYMessage> Next(milliseconds timeout) override {
        if (m_Arriving.empty()) {
            if (m_bLost) {
                throw CTYLinkLost("lost");
            }
            m_Time += std::max(timeout, 1ms);
            return std::nullopt;
        }
        TYMessage message = m_Arriving.front();
        m_Arriving.pop_front();
        return message;
    }

    void Send(const std::string& subject, const std::string& body) {
        m_Arriving.push_back({.subject = subject, .body = body});
    }
    void Acknowledge(const TYMessage& message) {
        Send(message.reply, R"({"stream":"TALLYRA","seq":)" + std::to_string(++m_nSequence) + "}");
    }
    void Refuse(const TYMessage& message) {
        Send(message.reply, R"({"error":{"code":503,"err_code":10077,"description":"full"}})");
    }
    /// @return the batches that were published, in order
    std::vector<TYForwardedBatch> Batches() {
        CTYForwardMessage codec;
        std::vector<TYForwardedBatch> batches;
        for (const TYMessage& message : m_Published) {
            if (message.subject.starts_with("tallyra.records.")) {
                batches.push_back(codec.Decode(message));
            }
        }
        return batches;
    }
    /// @return the first ids of the batches that were published, in order
    std::vector<std::int64_t> Firsts() {
        std::vector<std::int64_t> firsts;
        for (const TYForwardedBatch& batch : Batches()) {
            firsts.push_back(batch.first);
        }
        return firsts;
    }

    CTYForwarder::Clock::time_point m_Time;
    std::vector<std::string> m_Subjects;
    std::vector<TYMessage> m_Published;
    std::deque<TYMessage> m_Arriving;
    std::uint64_t m_nSequence = 0;
    bool m_bLost = false;
    std::function<void(const TYMessage&)> m_pAnswer;
    std::function<void(const TYMessage&)> m_pTake = [this](const TYMessage& m) { Acknowledge(m); };
};

class Forwarder : public CStoreTest {
  protected:
    void SetUp() override {
        CTYStore(m_File.string());
        m_strEpoch = Column("SELECT epoch FROM store").at(0);
    }
    void AddEntries(int count) {
        CTYStore(m_File.string())
            .Add(MakeBatch(std::vector<TYMediaData>(static_cast<std::size_t>(count),
                                                    MakeRecord(TY_EVENT_PLAYBACK_TIME))));
    }
    TYForwardEnd Run() {
        CFileReader database(m_File, CTYDatabase::Mode::READ_WRITE);
        database.HasMoved();
        return CTYForwarder(
                   database, m_Options, m_Fleet, [this] { return m_IsStopped(); },
                   [this] { return m_Fleet.m_Time; })
            .Run();
    }
    void Stored(std::int64_t stored) {
        m_Fleet.Send("tallyra.stored.tv1", m_strEpoch + ' ' + std::to_string(stored));
    }
    /// Answers questions from now on.
    void Answer(std::int64_t stored, std::int64_t processedUpTo, const std::string& stream = "s1") {
        m_Fleet.m_pAnswer = [=, this](const TYMessage& question) {
            m_Fleet.Send("tallyra.stored.tv1", question.body + ' ' + std::to_string(stored) + ' ' +
                                                   std::to_string(processedUpTo) + ' ' + stream);
        };
    }
    std::vector<std::string> State() {
        return Column("SELECT stored || ' ' || sent FROM forwarding");
    }

    std::string m_strEpoch;
    TYForwarderOptions m_Options{.device = "tv1"};
    CFakeFleet m_Fleet;
    std::function<bool()> m_IsStopped = [] { return false; };
};

TEST_F(Forwarder, SendsEveryEntryInTheOrderOfIds) {
    AddEntries(100);
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(1, 25, 49, 73, 97));
    std::int64_t after = 0;
    for (const TYForwardedBatch& batch : m_Fleet.Batches()) {
        EXPECT_EQ(batch.after, after);
        after = batch.Last();
    }
    EXPECT_EQ(after, 100);
    EXPECT_THAT(State(), ElementsAre("0 100"));
}

TEST_F(Forwarder, ListensOnItsOwnSubjectsOnly) {
    Run();
    EXPECT_THAT(m_Fleet.m_Subjects, ElementsAre("_INBOX.tv1.x.>", "tallyra.stored.tv1"));
    EXPECT_EQ(m_Fleet.m_Published.at(0).body, m_strEpoch);
}

TEST_F(Forwarder, HasAtMostFourBatchesInFlight) {
    AddEntries(240);
    std::size_t inFlight = 0;
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        inFlight = m_Fleet.m_Arriving.size() + 1;
        EXPECT_THAT(inFlight, Le(4U));
        m_Fleet.Acknowledge(message);
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(m_Fleet.Firsts(), SizeIs(10));
}

TEST_F(Forwarder, CommitsTheBoundsOfABatchBeforeItSendsIt) {
    AddEntries(50);
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        const auto batch = CTYForwardMessage().Decode(message);
        EXPECT_THAT(Column("SELECT last FROM forwarding_batches WHERE first = " +
                           std::to_string(batch.first)),
                    ElementsAre(std::to_string(batch.Last())));
        m_Fleet.Acknowledge(message);
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
}

TEST_F(Forwarder, SendsTheSameMessageAgainIfItIsNotAcknowledged) {
    AddEntries(5);
    int times = 0;
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        if (++times == 3) {
            m_Fleet.Acknowledge(message);
        }
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    const auto sent = m_Fleet.m_Published;
    ASSERT_THAT(m_Fleet.Firsts(), ElementsAre(1, 1, 1));
    EXPECT_EQ(sent.at(sent.size() - 1).headers, sent.at(sent.size() - 2).headers);
    EXPECT_EQ(sent.at(sent.size() - 1).body, sent.at(sent.size() - 2).body);
}

TEST_F(Forwarder, KeepsTheBoundsOverARestart) {
    AddEntries(5);
    m_Fleet.m_pTake = [](const TYMessage&) {};
    m_IsStopped = [this] { return m_Fleet.Firsts().size() == 1; };
    EXPECT_EQ(Run(), TYForwardEnd::STOPPED);
    AddEntries(30);
    m_IsStopped = [] { return false; };
    m_Fleet.m_pTake = [this](const TYMessage& message) { m_Fleet.Acknowledge(message); };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(1, 1, 6, 30));
}

TEST_F(Forwarder, LeavesWhenEverythingIsStored) {
    AddEntries(30);
    m_Fleet.m_pTake = [this](const TYMessage& message) {
        m_Fleet.Acknowledge(message);
        Stored(CTYForwardMessage().Decode(message).Last());
    };
    const auto begin = m_Fleet.m_Time;
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(State(), ElementsAre("30 30"));
    EXPECT_EQ(Number("SELECT count(*) FROM forwarding_batches"), 0);
    EXPECT_LT(m_Fleet.m_Time - begin, CTYForwarder::kStoredTime);
}

TEST_F(Forwarder, SendsAgainWhatWasProcessedAndIsNotStored) {
    AddEntries(96);
    Run();
    Answer(24, 3);
    m_Fleet.m_Published.clear();
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(25, 49, 73))
        << "the stream's id was not known before";
    m_Fleet.m_Published.clear();
    Answer(48, 6);
    Run();
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(49)) << "the last one is on its way";
}

TEST_F(Forwarder, SendsAgainWhatWasInAStreamThatIsLost) {
    AddEntries(72);
    Answer(0, 0, "s1");
    Run();
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(1, 25, 49));
    m_Fleet.m_Published.clear();
    Run();
    EXPECT_THAT(m_Fleet.Firsts(), IsEmpty()) << "all of it is on its way";
    Answer(0, 0, "s2");
    Run();
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(1, 25, 49));
}

TEST_F(Forwarder, GoesBackIfTheDatabaseWasReplacedByAnOlderOne) {
    AddEntries(72);
    Answer(72, 3);
    Run();
    Run();
    EXPECT_THAT(State(), ElementsAre("72 72"));
    m_Fleet.m_Published.clear();
    Answer(24, 3);
    Run();
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(25, 49));
    EXPECT_THAT(State(), ElementsAre("24 72"));
}

TEST_F(Forwarder, DoesNotGoBackForAnAnswerThatAWatermarkHasOvertaken) {
    AddEntries(72);
    Answer(72, 3);
    Run();
    m_Fleet.m_Published.clear();
    int answers = 0;
    m_Fleet.m_pAnswer = [&](const TYMessage& question) {
        m_Fleet.Send("tallyra.stored.tv1",
                     question.body + (++answers == 1 ? " 24 1 s1" : " 72 3 s1"));
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_EQ(answers, 2);
    EXPECT_THAT(m_Fleet.Firsts(), IsEmpty());
    EXPECT_THAT(State(), ElementsAre("72 72"));
}

TEST_F(Forwarder, LeavesAStoreThatWasReplacedByAnOlderCopy) {
    AddEntries(24);
    Answer(25, 3);
    EXPECT_EQ(Run(), TYForwardEnd::REPLACED);
    EXPECT_THAT(m_Fleet.Firsts(), IsEmpty());
}

TEST_F(Forwarder, AsksAgainWhileBatchesAreNotStored) {
    AddEntries(24);
    m_Options.follow = true;
    m_IsStopped = [this] { return m_Fleet.m_Time.time_since_epoch() > 130s; };
    Answer(0, 0);
    EXPECT_EQ(Run(), TYForwardEnd::STOPPED);
    EXPECT_EQ(std::ranges::count(m_Fleet.m_Published, "tallyra.ask.tv1", &TYMessage::subject), 3);
}

TEST_F(Forwarder, PausesLongerAndLongerWhileTheStreamIsFull) {
    AddEntries(24);
    m_Options.follow = true;
    std::vector<CTYForwarder::Clock::time_point> times;
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        times.push_back(m_Fleet.m_Time);
        m_Fleet.Refuse(message);
    };
    EXPECT_EQ(Run(), TYForwardEnd::FAILED);
    ASSERT_THAT(times, SizeIs(AllOf(Ge(5U), Le(9U))));
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[i - 1], 500ms * (1 << std::min<std::size_t>(i - 1, 6)));
    }
    EXPECT_THAT(State(), ElementsAre("0 0"));
}

TEST_F(Forwarder, ContinuesWhenTheStreamHasRoomAgain) {
    AddEntries(100);
    int refusals = 6;
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        --refusals >= 0 ? m_Fleet.Refuse(message) : m_Fleet.Acknowledge(message);
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(State(), ElementsAre("0 100"));
}

TEST_F(Forwarder, GivesUpAConnectionThatTakesNothingForAMinute) {
    AddEntries(24);
    m_Options.follow = true;
    m_Fleet.m_pTake = [](const TYMessage&) {};
    EXPECT_EQ(Run(), TYForwardEnd::FAILED);
    EXPECT_GT(m_Fleet.m_Time.time_since_epoch(), CTYForwarder::kPatience);
}

TEST_F(Forwarder, NotesWhatArrivedBeforeTheConnectionWasLost) {
    AddEntries(24);
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        m_Fleet.Acknowledge(message);
        Stored(24);
        m_Fleet.m_bLost = true;
    };
    EXPECT_THROW(Run(), CTYLinkLost);
    EXPECT_THAT(State(), ElementsAre("24 24"));
}

TEST_F(Forwarder, StopsAtTheLimitOfBytesForADay) {
    AddEntries(240);
    m_Options.bytesPerDay = 1000;
    EXPECT_EQ(Run(), TYForwardEnd::LIMITED);
    const std::size_t sent = m_Fleet.Firsts().size();
    EXPECT_THAT(sent, AllOf(Ge(1U), Le(6U)));
    EXPECT_EQ(Run(), TYForwardEnd::LIMITED);
    EXPECT_THAT(m_Fleet.Firsts(), SizeIs(sent));
    EXPECT_LE(Number("SELECT bytes FROM forwarding"), 1000);
    Execute("UPDATE forwarding SET day = day - 1");
    EXPECT_EQ(Run(), TYForwardEnd::LIMITED);
    EXPECT_THAT(m_Fleet.Firsts(), SizeIs(Ge(sent + 1)));
}

TEST_F(Forwarder, SendsNothingWhileThePolicyOfAllIsZero) {
    AddEntries(5);
    Execute("INSERT INTO policies(application, value, changed) VALUES('*', 0, 0)");
    EXPECT_EQ(Run(), TYForwardEnd::WITHHELD);
    EXPECT_THAT(m_Fleet.Firsts(), IsEmpty());
}

TEST_F(Forwarder, CountsWhatMayNotLeaveTheDevice) {
    AddEntries(5);
    TYMediaData other = MakeRecord(TY_EVENT_START, "p2");
    CopyText(other.serviceID, "org.example.other");
    CTYStore(m_File.string()).Add(MakeBatch({other}));
    Execute("INSERT INTO policies(application, value, changed) VALUES('org.example.app', 0, 0)");
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(6));
    EXPECT_EQ(m_Fleet.Batches().at(0).after, 0);
    EXPECT_EQ(Number("SELECT records FROM losses WHERE reason = 'policy'"), 5);
}

TEST_F(Forwarder, SaysThatEntriesOfABatchAreGone) {
    AddEntries(24);
    m_Fleet.m_pTake = [](const TYMessage&) {};
    m_IsStopped = [this] { return m_Fleet.Firsts().size() == 1; };
    Run();
    Execute("DELETE FROM runs");
    m_Fleet.m_pTake = [this](const TYMessage& message) { m_Fleet.Acknowledge(message); };
    m_IsStopped = [] { return false; };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_EQ(m_Fleet.Batches().back().after, 0);
    EXPECT_EQ(m_Fleet.Batches().back().Last(), 24);
    EXPECT_THAT(State(), ElementsAre("0 24"));
}

TEST_F(Forwarder, BelievesNoWatermarkThatCannotBe) {
    AddEntries(24);
    m_Fleet.m_pTake = [&](const TYMessage& message) {
        Stored(-1);
        for (const char* pBody : {"", " ", "x 24", "0a1b2c3d-0000-4000-8000-000000000001 24"}) {
            m_Fleet.Send("tallyra.stored.tv1", pBody);
        }
        m_Fleet.Send("tallyra.stored.tv1", m_strEpoch);
        m_Fleet.Send("tallyra.stored.tv1", m_strEpoch + " 99999999999999999999");
        m_Fleet.Send("_INBOX.tv1.x.", "{}");
        m_Fleet.Send("_INBOX.tv1.x.1.99", R"({"seq":1})");
        m_Fleet.Acknowledge(message);
    };
    EXPECT_EQ(Run(), TYForwardEnd::DRAINED);
    EXPECT_THAT(State(), ElementsAre("0 24"));
}

TEST_F(Forwarder, LeavesAStoreThatWasSetAside) {
    AddEntries(5);
    m_Options.follow = true;
    m_IsStopped = [&] {
        std::filesystem::rename(m_File, m_Folder.Path() / "aside.db");
        m_IsStopped = [] { return false; };
        return false;
    };
    EXPECT_EQ(Run(), TYForwardEnd::MOVED);
    EXPECT_THAT(m_Fleet.Firsts(), IsEmpty());
}

TEST_F(Forwarder, FollowsWhatIsAdded) {
    m_Options.follow = true;
    int looks = 0;
    m_IsStopped = [&] {
        if (++looks == 20) {
            AddEntries(3);
        }
        return looks > 40;
    };
    EXPECT_EQ(Run(), TYForwardEnd::STOPPED);
    EXPECT_THAT(m_Fleet.Firsts(), ElementsAre(1));
}

}  // namespace
