#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orva_host/client_exchange.h"
#include "orva_host/network_address.h"
#include "orva_host/server_exchanges.h"
#include "support/network_world.h"

namespace orva::host {
namespace {

using test::NetworkWorld;
using Result = NetworkWorld::Result;

// Gives up after a day of virtual time only.
const NetworkTiming kPatient{86'400'000, 100, 1'000'000};

std::string patternOf(std::size_t bytes, unsigned step = 7) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * step >> 4);
  return text;
}

std::size_t bytesIn(const OutgoingDatagrams& datagrams) {
  std::size_t bytes = 0;
  for (const OutgoingDatagram& datagram : datagrams) bytes += datagram.bytes.size();
  return bytes;
}

Datagram decoded(const std::string& bytes) {
  Datagram datagram;
  EXPECT_TRUE(decodeDatagram(bytes.data(), bytes.size(), datagram));
  return datagram;
}

// A whole request, or the first piece of a longer one.
std::string requestDatagram(std::uint64_t id, std::uint64_t proof, const OutgoingMessage& message,
                            std::uint16_t round = 1) {
  Datagram datagram;
  datagram.kind = DatagramKind::kRequest;
  datagram.replyWanted = true;
  datagram.id = id;
  datagram.proof = proof;
  datagram.round = round;
  message.putPiece(0, datagram);
  return encodeDatagram(datagram);
}

std::string requestDatagram(std::uint64_t id, std::uint64_t proof, const std::string& text,
                            std::uint16_t round = 1) {
  return requestDatagram(id, proof, OutgoingMessage(text), round);
}

std::string controlDatagram(DatagramKind kind, std::uint64_t id, std::uint64_t proof,
                            std::uint16_t round = 1) {
  Datagram datagram;
  datagram.kind = kind;
  datagram.id = id;
  datagram.proof = proof;
  datagram.round = round;
  return encodeDatagram(datagram);
}

// The proof that the answering side gives an address.
std::uint64_t proofFor(NetworkWorld& world, const NLAddress& address) {
  const OutgoingDatagrams replies = world.receive(address, requestDatagram(1, 0, "?"));
  if (replies.size() != 1) return 0;
  const Datagram challenge = decoded(replies[0].bytes);
  EXPECT_EQ(challenge.kind, DatagramKind::kChallenge);
  return challenge.proof;
}

TEST(NetworkExchangeTest, AnswerComesBack) {
  NetworkWorld world;
  const Result result = world.exchange("ping");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.answer, "answer to ping");
  EXPECT_EQ(result.tookMs, 4);
  EXPECT_EQ(world.served["ping"], 1);
}

TEST(NetworkExchangeTest, ProofIsAskedForOnceAndServesLaterExchanges) {
  NetworkWorld world;
  world.exchange("first");
  EXPECT_EQ(world.exchange("second").tookMs, 2);
  EXPECT_EQ(world.sent[DatagramKind::kChallenge], 1);
  EXPECT_EQ(world.sent[DatagramKind::kRequest], 3);
}

TEST(NetworkExchangeTest, MessagesOfAnyLengthCrossWholeWithNothingSentTwice) {
  NetworkWorld world;
  for (const std::size_t bytes : {std::size_t{1}, kPieceBytes, kPieceBytes + 1, 32 * kPieceBytes,
                                  33 * kPieceBytes, std::size_t{kNLMaxMessage}}) {
    const std::string request = patternOf(bytes, 5);
    const std::string answer = patternOf(bytes, 11);
    world.handler = [&](const std::string& got) { return got == request ? answer : "other"; };
    const Result result = world.exchange(request);
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(result.answer == answer) << bytes;
    EXPECT_EQ(result.repeatedPieces, 0) << bytes;
  }
}

TEST(NetworkExchangeTest, StatusOfAHandlerThatWroteNothingComesBack) {
  NetworkWorld world;
  world.handler = [](const std::string&) { return ""; };
  world.handlerStatus = status::kBadNotSupported;
  const Result result = world.exchange("?");
  EXPECT_EQ(static_cast<StatusCode>(result.code), status::kBadNotSupported);
  EXPECT_EQ(result.answer, "");
  world.handlerStatus = 0;
  EXPECT_EQ(static_cast<StatusCode>(world.exchange("?").code), status::kBadNoData);
}

TEST(NetworkExchangeTest, TextOfAHandlerCountsWhateverItsStatus) {
  NetworkWorld world;
  world.handlerStatus = status::kBadEncodingLimits;
  const Result result = world.exchange("?");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.answer, "answer to ?");
}

TEST(NetworkExchangeTest, OnlyTheMissingPiecesOfAnAnswerAreAskedForAgain) {
  NetworkWorld world;
  const std::string answer = patternOf(60 * kPieceBytes);
  world.handler = [&](const std::string&) { return answer; };
  std::map<int, int> timesSent;
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind != DatagramKind::kAnswer) return true;
    const int times = ++timesSent[datagram.piece];
    return (datagram.piece != 3 && datagram.piece != 17 && datagram.piece != 40) || times > 1;
  };
  const Result result = world.exchange("?");
  EXPECT_TRUE(result.answer == answer);
  EXPECT_EQ(result.repeatedPieces, 3);
  EXPECT_EQ(world.answering().counters().answerPieces, 61U + 3U);
  for (const auto& [piece, times] : timesSent) {
    EXPECT_EQ(times, piece == 3 || piece == 17 || piece == 40 ? 2 : 1) << piece;
  }
}

TEST(NetworkExchangeTest, WhatIsMissingOfABurstIsAskedForSoonAfterItsEnd) {
  NetworkWorld world;
  world.exchange("for the proof");
  const std::string answer = patternOf(60 * kPieceBytes);
  world.handler = [&](const std::string&) { return answer; };
  std::map<int, int> timesSent;
  world.passes = [&](const Datagram& datagram) {
    return datagram.kind != DatagramKind::kAnswer || datagram.piece % 10 != 3 ||
           ++timesSent[datagram.piece] > 1;
  };
  const Result result = world.exchange("?");
  EXPECT_TRUE(result.answer == answer);
  EXPECT_EQ(result.repeatedPieces, 6);
  EXPECT_EQ(result.tookMs, 3 * 2 + 2 * 10);  // three round trips, and the wait after two bursts
}

TEST(NetworkExchangeTest, PiecesThatAreOvertakenAreNotAskedForAgain) {
  NetworkWorld world(3);
  const std::string answer = patternOf(190 * kPieceBytes);
  world.handler = [&](const std::string&) { return answer; };
  world.faults.leastDelayMs = 20;
  world.faults.mostDelayMs = 29;
  for (int i = 0; i < 20; ++i) {
    const Result result = world.exchange("?");
    EXPECT_TRUE(result.answer == answer);
    EXPECT_EQ(result.repeatedPieces, 0);
  }
}

TEST(NetworkExchangeTest, OnlyTheMissingPiecesOfARequestAreSentAgain) {
  NetworkWorld world;
  world.exchange("for a proof");
  std::map<int, int> timesSent;
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind != DatagramKind::kRequest) return true;
    return ++timesSent[datagram.piece] > 1 || (datagram.piece != 2 && datagram.piece != 35);
  };
  const std::string request = patternOf(50 * kPieceBytes);
  const Result result = world.exchange(request);
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.repeatedPieces, 2);
  for (const auto& [piece, times] : timesSent) {
    EXPECT_EQ(times, piece == 2 || piece == 35 ? 2 : 1) << piece;
  }
}

// The answering side learns of a burst's end by its last piece.
TEST(NetworkExchangeTest, LostEndOfABurstCostsOnePieceNotTheBurst) {
  NetworkWorld world;
  world.exchange("for a proof");
  bool lost = false;
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind != DatagramKind::kRequest || datagram.piece != 31 || lost) return true;
    lost = true;
    return false;
  };
  EXPECT_EQ(world.exchange(patternOf(40 * kPieceBytes)).code, 0);
  EXPECT_TRUE(lost);
  EXPECT_EQ(world.sent[DatagramKind::kRequest], 2 + 40 + 2);
}

TEST(NetworkExchangeTest, EveryExchangeOverABadNetworkEndsWithItsOwnAnswer) {
  for (std::uint32_t seed = 1; seed <= 300; ++seed) {
    NetworkWorld world(seed);
    world.faults = {0.3, 0.3, 1, 250};
    for (int i = 0; i < 3; ++i) {
      const std::string request =
          std::to_string(i) + ":" + patternOf(seed * 977 % 20'000 + 1, seed);
      const std::string answer = patternOf(seed * 3571 % 100'000 + 1, seed + 1);
      world.handler = [&answer](const std::string& got) { return got.substr(0, 2) + answer; };
      const Result result = world.exchange(request, kPatient);
      ASSERT_EQ(result.code, 0) << seed;
      ASSERT_TRUE(result.answer == request.substr(0, 2) + answer) << seed;
      ASSERT_EQ(world.served[request], 1) << seed;
    }
  }
}

TEST(NetworkExchangeTest, ExchangeOverABadNetworkEndsWithinItsTimeEitherWay) {
  int answered = 0;
  int failed = 0;
  for (std::uint32_t seed = 1; seed <= 300; ++seed) {
    NetworkWorld world(seed);
    world.faults = {0.6, 0.2, 1, 100};
    const Result result = world.exchange("request", {2000, 100, 3});
    ASSERT_LE(result.tookMs, 2000);
    ASSERT_LE(world.served["request"], 1);
    if (result.code == 0) {
      ++answered;
      ASSERT_EQ(result.answer, "answer to request");
    } else {
      ++failed;
      ASSERT_EQ(result.code, kNLTimedOut);
      ASSERT_EQ(result.answer, "");
    }
  }
  EXPECT_GT(answered, 30);
  EXPECT_GT(failed, 30);
}

TEST(NetworkExchangeTest, DoublingNetworkDoublesTheDatagramsAndNoMore) {
  NetworkWorld world;
  world.handler = [](const std::string&) { return patternOf(100 * kPieceBytes); };
  world.faults.doubling = 1;
  const Result result = world.exchange(patternOf(100 * kPieceBytes));
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.repeatedPieces, 0);
  EXPECT_EQ(world.sent[DatagramKind::kRequest], 101);
  EXPECT_EQ(world.sent[DatagramKind::kAnswer], 101);
}

TEST(NetworkExchangeTest, DeadControllerIsTriedWithDoublingIntervalsThenGivenUp) {
  NetworkWorld world;
  world.faults.loss = 1;
  const Result result = world.exchange("?");
  EXPECT_EQ(result.code, kNLTimedOut);
  EXPECT_EQ(world.askedAtMs, (std::vector<std::int64_t>{0, 100, 300, 700, 1500, 2300, 3100}));
  EXPECT_EQ(result.tookMs, 3900);
}

TEST(NetworkExchangeTest, TimeLimitOfTheExchangeComesFirst) {
  NetworkWorld world;
  world.faults.loss = 1;
  EXPECT_EQ(world.exchange("?", {450, 100, 6}).tookMs, 450);
}

TEST(NetworkExchangeTest, ControllerThatWorksOnARequestIsAskedSeldomAndWaitedFor) {
  NetworkWorld world;
  world.servingMs = 8000;
  const Result result = world.exchange("slow");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.answer, "answer to slow");
  EXPECT_EQ(world.served["slow"], 1);
  EXPECT_GE(world.sent[DatagramKind::kWorking], 8);
  EXPECT_LE(world.sent[DatagramKind::kWorking], 14);
  world.servingMs = 20'000;
  const Result late = world.exchange("slower");
  EXPECT_EQ(late.code, kNLTimedOut);
  EXPECT_EQ(late.tookMs, 10'000);
}

TEST(NetworkExchangeTest, AnswerLostAfterLongWorkIsFetchedByTheNextLook) {
  NetworkWorld world;
  world.servingMs = 2000;
  int answers = 0;
  world.passes = [&](const Datagram& datagram) {
    return datagram.kind != DatagramKind::kAnswer || ++answers > 1;
  };
  const Result result = world.exchange("slow");
  EXPECT_EQ(result.answer, "answer to slow");
  EXPECT_EQ(world.served["slow"], 1);
  EXPECT_LE(result.tookMs, 2000 + 2 * kMostRetryMs);
}

TEST(NetworkExchangeTest, AnswersOfTwoLivesOfAControllerAreNotMixed) {
  NetworkWorld world;
  const std::string before = patternOf(40 * kPieceBytes, 3);
  const std::string after = patternOf(40 * kPieceBytes, 5);
  world.handler = [&](const std::string&) { return before; };
  int pieces = 0;
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind == DatagramKind::kAskAnswer && pieces++ == 0) {
      world.handler = [&](const std::string&) { return after; };
      world.restart();
    }
    return true;
  };
  const Result result = world.exchange("?");
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.answer == after);
  EXPECT_EQ(world.served["?"], 2);
}

TEST(NetworkExchangeTest, AnswerThatWasGivenUpIsAskedForFromTheBeginning) {
  ExchangeLimits limits;
  limits.exchangesOfOne = 1;
  NetworkWorld world(1, limits);
  world.handler = [](const std::string&) { return patternOf(40 * kPieceBytes); };
  bool pushedOut = false;
  const std::uint64_t proof = proofFor(world, NetworkWorld::asker());
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind == DatagramKind::kAskAnswer && !pushedOut) {
      pushedOut = true;
      world.receive(NetworkWorld::asker(), requestDatagram(77, proof, "another"));
    }
    return true;
  };
  const Result result = world.exchange("?");
  EXPECT_TRUE(pushedOut);
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.answer == patternOf(40 * kPieceBytes));
  EXPECT_EQ(world.sent[DatagramKind::kUnknown], 1);
  EXPECT_EQ(world.answering().counters().evicted, 2U);
}

TEST(NetworkExchangeTest, ControllerThatNeverKnowsTheExchangeIsGivenUp) {
  NetworkWorld world;
  world.handler = [](const std::string&) { return patternOf(40 * kPieceBytes); };
  world.passes = [&](const Datagram& datagram) {
    if (datagram.kind == DatagramKind::kAskAnswer) world.restart();
    return true;
  };
  EXPECT_EQ(world.exchange("?", kPatient).code, kNLTimedOut);
}

// What the asking side is told by whom.
class AskingSideTest : public testing::Test {
 protected:
  AskingSideTest()
      : asking_({NetworkWorld::answerer(), "?", kId, kProof, NetworkTiming(), 0}, out_) {
    out_.clear();
  }
  static constexpr std::uint64_t kId = 0x1234567890ABCDEF;
  static constexpr std::uint64_t kProof = 99;

  static std::string answerDatagram(std::uint64_t id, const std::string& text) {
    const OutgoingMessage message(std::string(kStatusBytes, '\0') + text);
    Datagram datagram;
    datagram.kind = DatagramKind::kAnswer;
    datagram.id = id;
    datagram.round = 1;
    message.putPiece(0, datagram);
    return encodeDatagram(datagram);
  }
  bool receive(const std::string& bytes, const NLAddress& from = NetworkWorld::answerer()) {
    return asking_.receive(from, bytes.data(), bytes.size(), 1, out_);
  }

  OutgoingDatagrams out_;
  ClientExchange asking_;
};

TEST_F(AskingSideTest, AnswerFromAnotherAddressIsIgnored) {
  EXPECT_FALSE(receive(answerDatagram(kId, "forged"), networkAddress("10.0.0.2", 9001)));
  EXPECT_FALSE(receive(answerDatagram(kId, "forged"), networkAddress("10.0.0.3", 9000)));
  EXPECT_FALSE(asking_.isOver());
  EXPECT_TRUE(out_.empty());
}

TEST_F(AskingSideTest, AnswerWithAnotherIdIsIgnored) {
  for (std::uint64_t guess = 0; guess < 64; ++guess) {
    EXPECT_FALSE(receive(answerDatagram(kId ^ (std::uint64_t{1} << guess), "forged")));
  }
  EXPECT_FALSE(receive(answerDatagram(0, "forged")));
  EXPECT_FALSE(asking_.isOver());
}

TEST_F(AskingSideTest, WhatOnlyAskingSidesSendIsIgnored) {
  for (const DatagramKind kind : {DatagramKind::kDone, DatagramKind::kRequest}) {
    EXPECT_FALSE(receive(kind == DatagramKind::kDone ? controlDatagram(kind, kId, kProof)
                                                     : requestDatagram(kId, kProof, "?")));
  }
  EXPECT_TRUE(out_.empty());
}

TEST_F(AskingSideTest, RepeatedChallengeIsFollowedOnce) {
  receive(controlDatagram(DatagramKind::kChallenge, kId, 7));
  EXPECT_EQ(out_.size(), 1U);
  EXPECT_EQ(asking_.proof(), 7U);
  receive(controlDatagram(DatagramKind::kChallenge, kId, 7));
  receive(controlDatagram(DatagramKind::kChallenge, kId, 8));
  receive(controlDatagram(DatagramKind::kChallenge, kId, 8, 500));
  EXPECT_EQ(out_.size(), 1U);
  EXPECT_EQ(asking_.proof(), 7U);
}

TEST_F(AskingSideTest, ChallengesWithoutEndEndTheExchange) {
  for (std::uint16_t round = 1; round < 100 && !asking_.isOver(); ++round) {
    receive(controlDatagram(DatagramKind::kChallenge, kId, 1000U + round, round));
  }
  EXPECT_TRUE(asking_.isOver());
  std::string answer;
  EXPECT_EQ(asking_.result(answer), kNLTimedOut);
  EXPECT_LE(out_.size(), 10U);
}

TEST_F(AskingSideTest, AnswerTooShortForItsStatusIsIgnored) {
  const OutgoingMessage message("abc");
  Datagram datagram;
  datagram.kind = DatagramKind::kAnswer;
  datagram.id = kId;
  message.putPiece(0, datagram);
  receive(encodeDatagram(datagram));
  EXPECT_FALSE(asking_.isOver());
}

TEST_F(AskingSideTest, NothingIsTakenWhenItIsOver) {
  EXPECT_TRUE(receive(answerDatagram(kId, "the answer")));
  ASSERT_TRUE(asking_.isOver());
  EXPECT_FALSE(receive(answerDatagram(kId, "a later one")));
  std::string answer;
  EXPECT_EQ(asking_.result(answer), 0);
  EXPECT_EQ(answer, "the answer");
}

// What the answering side does with datagrams that nobody well-behaved sends.
class AnsweringSideTest : public testing::Test {
 protected:
  const ExchangeCounters& counters() { return world_.answering().counters(); }
  OutgoingDatagrams receive(const std::string& bytes,
                            const NLAddress& from = NetworkWorld::asker()) {
    return world_.receive(from, bytes);
  }

  NetworkWorld world_;
};

TEST_F(AnsweringSideTest, NothingIsSentToAddressesOfNoController) {
  for (const NLAddress& address :
       {networkAddress("10.0.0.4", 9600), networkAddress("10.0.0.1", 9000),
        networkAddress("10.0.0.1", 9599), networkAddress("10.0.0.1", 9620),
        networkAddress("fd00::1", 9600)}) {
    EXPECT_TRUE(receive(requestDatagram(1, 0, "?"), address).empty());
  }
  EXPECT_EQ(counters().strange, 5U);
  EXPECT_EQ(world_.answering().exchangesKept(), 0U);
}

TEST_F(AnsweringSideTest, UnprovedAddressGetsNoMoreBytesThanItSentAndCostsNoMemory) {
  std::vector<std::string> datagrams = {
      requestDatagram(1, 0, "?"), requestDatagram(2, 12345, patternOf(100'000)),
      controlDatagram(DatagramKind::kDone, 3, 0), controlDatagram(DatagramKind::kChallenge, 4, 0)};
  Datagram ask;
  ask.kind = DatagramKind::kAskAnswer;
  ask.messageBytes = 1;
  ask.pieces = 1;
  ask.payload = "\x01";
  datagrams.push_back(encodeDatagram(ask));
  for (const std::string& bytes : datagrams) {
    const OutgoingDatagrams replies = receive(bytes);
    EXPECT_LE(bytesIn(replies), bytes.size());
    for (const OutgoingDatagram& reply : replies) {
      EXPECT_EQ(decoded(reply.bytes).kind, DatagramKind::kChallenge);
      EXPECT_TRUE(sameAddress(reply.to, NetworkWorld::asker()));
    }
  }
  EXPECT_EQ(world_.answering().exchangesKept(), 0U);
  EXPECT_EQ(world_.answering().bytesKept(), 0U);
  EXPECT_TRUE(world_.served.empty());
}

TEST_F(AnsweringSideTest, ProofOfOneAddressIsNoneOfAnother) {
  const NLAddress other = networkAddress("10.0.0.1", 9601);
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  EXPECT_NE(proof, proofFor(world_, other));
  EXPECT_EQ(decoded(receive(requestDatagram(5, proof, "?"), other)[0].bytes).kind,
            DatagramKind::kChallenge);
  EXPECT_TRUE(world_.served.empty());
}

TEST_F(AnsweringSideTest, ProofIsRenewedAndTheFormerOneHoldsForAWhile) {
  const ExchangeLimits limits;
  const std::uint64_t first = proofFor(world_, NetworkWorld::asker());
  world_.nowMs += limits.proofMs;
  const std::uint64_t second = proofFor(world_, NetworkWorld::asker());
  EXPECT_NE(first, second);
  receive(requestDatagram(5, first, "old"));
  receive(requestDatagram(6, second, "new"));
  EXPECT_EQ(world_.served.size(), 2U);
  world_.nowMs += limits.proofMs;
  receive(requestDatagram(7, first, "too old"));
  EXPECT_EQ(world_.served.size(), 2U);
  world_.nowMs += 3 * limits.proofMs;
  receive(requestDatagram(8, second, "far too old"));
  EXPECT_EQ(world_.served.size(), 2U);
}

TEST_F(AnsweringSideTest, RequestThatComesAgainIsNotServedAgain) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  world_.servingMs = 1;
  EXPECT_TRUE(receive(requestDatagram(5, proof, "once")).empty());
  const OutgoingDatagrams working = receive(requestDatagram(5, proof, "once", 2));
  ASSERT_EQ(working.size(), 1U);
  EXPECT_EQ(decoded(working[0].bytes).kind, DatagramKind::kWorking);
  EXPECT_TRUE(receive(requestDatagram(5, proof, "once", 2)).empty());
  EXPECT_EQ(counters().requests, 1U);
}

TEST_F(AnsweringSideTest, RequestThatComesAfterItsAnswerGetsThatAnswerUntilItIsDone) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  const OutgoingDatagrams first = receive(requestDatagram(5, proof, "once"));
  world_.handler = [](const std::string&) { return "another answer"; };
  const OutgoingDatagrams second = receive(requestDatagram(5, proof, "once", 2));
  ASSERT_EQ(first.size(), 1U);
  ASSERT_EQ(second.size(), 1U);
  EXPECT_EQ(decoded(first[0].bytes).payload, decoded(second[0].bytes).payload);
  receive(controlDatagram(DatagramKind::kDone, 5, proof, 3));
  EXPECT_EQ(world_.answering().bytesKept(), 0U);
  EXPECT_TRUE(receive(requestDatagram(5, proof, "once", 4)).empty());
  EXPECT_EQ(world_.served["once"], 1);
}

TEST_F(AnsweringSideTest, SameIdFromTwoAddressesMeansTwoExchanges) {
  const NLAddress other = networkAddress("10.0.0.3", 9600);
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  const std::uint64_t otherProof = proofFor(world_, other);
  receive(requestDatagram(5, proof, "a"));
  const OutgoingDatagrams replies = receive(requestDatagram(5, otherProof, "b"), other);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_TRUE(sameAddress(replies[0].to, other));
  EXPECT_EQ(decoded(replies[0].bytes).payload.substr(kStatusBytes), "answer to b");
}

TEST_F(AnsweringSideTest, UnknownExchangeIsSaidToBe) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  Datagram ask;
  ask.kind = DatagramKind::kAskAnswer;
  ask.id = 5;
  ask.proof = proof;
  ask.messageBytes = 1;
  ask.pieces = 1;
  ask.payload = "\x01";
  const OutgoingDatagrams replies = receive(encodeDatagram(ask));
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(decoded(replies[0].bytes).kind, DatagramKind::kUnknown);
}

TEST_F(AnsweringSideTest, OpenRequestsOfOneControllerAreBoundedAndHurtNoOther) {
  const NLAddress other = networkAddress("10.0.0.3", 9600);
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  const std::uint64_t otherProof = proofFor(world_, other);
  receive(requestDatagram(1, otherProof, patternOf(3000)), other);
  const ExchangeLimits limits;
  const OutgoingMessage longest(patternOf(kNLMaxMessage));
  for (std::uint64_t id = 1; id <= 10'000; ++id) {
    receive(requestDatagram(id, proof, longest));
    ASSERT_LE(world_.answering().exchangesKept(), limits.exchangesOfOne + 1);
    ASSERT_LE(world_.answering().bytesKept(), limits.exchangesOfOne * kNLMaxMessage + 3000);
  }
  EXPECT_EQ(counters().evicted, 10'000 - limits.exchangesOfOne);
  // The other one's request is still there and can be completed.
  const OutgoingMessage message(patternOf(3000));
  for (std::uint16_t piece = 1; piece < message.pieces(); ++piece) {
    Datagram datagram;
    datagram.id = 1;
    datagram.proof = otherProof;
    message.putPiece(piece, datagram);
    receive(encodeDatagram(datagram), other);
  }
  EXPECT_EQ(world_.served[patternOf(3000)], 1);
}

TEST_F(AnsweringSideTest, RequestsBeingServedAreNotPushedOut) {
  world_.servingMs = 1;
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  const ExchangeLimits limits;
  for (std::uint64_t id = 1; id <= 100; ++id) receive(requestDatagram(id, proof, "?"));
  EXPECT_EQ(counters().requests, limits.exchangesOfOne);
  EXPECT_EQ(counters().refused, 100 - limits.exchangesOfOne);
  world_.nowMs += 10 * limits.answerMs;
  world_.answering().expire(world_.nowMs);
  EXPECT_EQ(world_.answering().exchangesKept(), limits.exchangesOfOne);
}

TEST(AnsweringSideLimitsTest, BytesOfAllExchangesAreBounded) {
  ExchangeLimits limits;
  limits.bytes = 100'000;
  limits.exchangesOfOne = 1000;
  limits.exchanges = 50;
  NetworkWorld world(1, limits);
  const std::uint64_t proof = proofFor(world, NetworkWorld::asker());
  world.handler = [](const std::string&) { return patternOf(60'000); };
  for (std::uint32_t id = 1; id <= 500; ++id) {
    const std::size_t bytes = id * 7919 % 90'000 + 1;
    world.receive(NetworkWorld::asker(), requestDatagram(id, proof, patternOf(bytes)));
    ASSERT_LE(world.answering().bytesKept(), limits.bytes);
    ASSERT_LE(world.answering().exchangesKept(), limits.exchanges);
  }
  EXPECT_GT(world.answering().counters().requests, 0U);
  world.handler = [](const std::string&) { return patternOf(100'000); };
  EXPECT_TRUE(world.receive(NetworkWorld::asker(), requestDatagram(9999, proof, "?")).empty());
  EXPECT_EQ(world.answering().counters().refused, 1U);
  EXPECT_LE(world.answering().bytesKept(), limits.bytes);
}

TEST_F(AnsweringSideTest, WhatGetsNoFurtherIsForgotten) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  const ExchangeLimits limits;
  receive(requestDatagram(1, proof, patternOf(5000)));
  receive(requestDatagram(2, proof, "?"));
  EXPECT_EQ(world_.answering().exchangesKept(), 2U);
  world_.nowMs += limits.collectMs;
  world_.answering().expire(world_.nowMs);
  EXPECT_EQ(world_.answering().exchangesKept(), 1U);
  world_.nowMs += limits.answerMs - limits.collectMs;
  world_.answering().expire(world_.nowMs);
  EXPECT_EQ(world_.answering().exchangesKept(), 0U);
  EXPECT_EQ(world_.answering().bytesKept(), 0U);
}

TEST_F(AnsweringSideTest, ControllerThatIsTakenOutIsForgottenAndNotAnswered) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  receive(requestDatagram(1, proof, patternOf(5000)));
  world_.answering().setControllers({{3, networkAddress("10.0.0.3", 9000)}});
  EXPECT_EQ(world_.answering().exchangesKept(), 0U);
  EXPECT_TRUE(receive(requestDatagram(2, proof, "?")).empty());
  world_.answering().setControllers({{1, networkAddress("10.0.0.1", 9000)}});
  const OutgoingDatagrams replies = receive(requestDatagram(3, proof, "?"));
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(decoded(replies[0].bytes).kind, DatagramKind::kChallenge);
}

TEST_F(AnsweringSideTest, AnswerToAnExchangeThatIsGoneIsDropped) {
  OutgoingDatagrams out;
  world_.answering().answer({NetworkWorld::asker(), 5}, 0, "late", 0, out);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(world_.answering().exchangesKept(), 0U);
}

TEST_F(AnsweringSideTest, AnswerBeyondTheLimitBecomesItsStatus) {
  const std::uint64_t proof = proofFor(world_, NetworkWorld::asker());
  world_.handler = [](const std::string&) { return std::string(kNLMaxMessage + 1, 'x'); };
  const OutgoingDatagrams replies = receive(requestDatagram(1, proof, "?"));
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(decoded(replies[0].bytes).payload, std::string("\x00\x00\x08\x80", 4));
}

}  // namespace
}  // namespace orva::host
