// Several threads saying and stopping at once: no deadlock, no lost task, every task ends
// exactly once. Meant to run under ThreadSanitizer too (-DBEXKO_SANITIZE=thread).
#include <zr/zrtexttospeech.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;

constexpr auto kStressDuration = std::chrono::seconds(3);

class StressTest : public SpeechServiceTest {
 protected:
  StressTest() { backend.addVoice("Sam", "English"); }
};

TEST_F(StressTest, SayersAndStoppersTogetherEndEveryTaskExactlyOnce) {
  FakeModule& animated = host.addFakeModule("ZRAnimatedSpeech");
  animated.addMethod("_mrkpauseCallback", 1);
  // Sentences alternate between the requested voice (Sam) and the language's default voice
  // (Kenny), so that every sentence applies a voice and voice failures can be injected.
  tts->setVoice("Sam");
  backend.setScript({{TTS_EVENT_WORD, 0, 0},
                     {TTS_EVENT_MARKER, 1, bytesForMs(30)},
                     {TTS_EVENT_MARKER, 64536, bytesForMs(10)},
                     {TTS_EVENT_MARKER, 2, bytesForMs(60)},
                     {TTS_EVENT_WORD, 6, 100}});
  backend.setBlocking(true);
  host.clearEvents();

  std::atomic<bool> running{true};
  std::atomic<int> sayCalls{0};
  std::atomic<int> sayErrors{0};
  std::atomic<int> otherErrors{0};
  std::atomic<int> stopCalls{0};

  std::vector<std::thread> sayers;
  std::vector<std::unique_ptr<std::atomic<bool>>> sayerDone;
  for (int s = 0; s < 3; ++s) {
    sayerDone.emplace_back(new std::atomic<bool>(false));
    sayers.emplace_back([&, s] {
      for (int i = 0; running; ++i) {
        ++sayCalls;
        try {
          if ((i + s) % 2 == 0) {
            tts->say("Speaker " + std::to_string(s) + " sentence " + std::to_string(i));
          } else {
            tts->say("Speaker " + std::to_string(s) + " again", "English");
          }
        } catch (const ZR::ZRError&) {
          ++sayErrors;
        } catch (...) {
          ++otherErrors;
        }
      }
      *sayerDone[s] = true;
    });
  }

  std::vector<std::thread> helpers;
  helpers.emplace_back([&] {  // lets blocked sentences end normally now and then
    while (running) {
      backend.release();
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
  });
  helpers.emplace_back([&] {
    while (running) {
      tts->stopAll();
      ++stopCalls;
      std::this_thread::sleep_for(std::chrono::milliseconds(11));
    }
  });
  helpers.emplace_back([&] {
    while (running) {
      // Aims at recent identifiers: some are running, some are long gone.
      tts->stop(sayCalls.load() - 1);
      ++stopCalls;
      std::this_thread::sleep_for(std::chrono::milliseconds(7));
    }
  });
  helpers.emplace_back([&] {
    while (running) {
      backend.failNext("setCurrentVoice",
                       ZR::ZRError("TextToSpeech", "setCurrentVoice", "injected failure"));
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
  });
  helpers.emplace_back([&] {
    while (running) {
      tts->pause();
      tts->resume();
      std::this_thread::sleep_for(std::chrono::milliseconds(13));
    }
  });

  std::this_thread::sleep_for(kStressDuration);
  running = false;
  for (std::thread& helper : helpers) helper.join();

  // Let every sentence still in the engine end, then the sayers see `running` and leave.
  backend.setBlocking(false);
  const bool allReturned = eventually(
      [&] {
        backend.release();
        for (const auto& done : sayerDone) {
          if (!*done) return false;
        }
        return true;
      },
      30000);
  ASSERT_TRUE(allReturned) << "a say call never returned";
  for (std::thread& sayer : sayers) sayer.join();

  EXPECT_EQ(otherErrors.load(), 0);
  EXPECT_GT(stopCalls.load(), 10);

  // Every task: "enqueued" first, at most one "started", and exactly one final word. A stop
  // may come between the speaking thread's last check and its "started", so "started" can
  // follow "stopped"; a final word is never followed by another one.
  std::map<int, std::vector<std::string>> statuses;
  for (const RaisedEvent& event : host.events(ZR::ZRTextToSpeech::strStatusEvent)) {
    ASSERT_EQ(event.value.getSize(), 2);
    statuses[event.value[0].toInt()].push_back(event.value[1].toString());
  }
  std::map<std::string, int> finals;
  int startedAfterStop = 0;
  for (const auto& entry : statuses) {
    const std::vector<std::string>& words = entry.second;
    SCOPED_TRACE("task " + std::to_string(entry.first));
    ASSERT_GE(words.size(), 2u);
    EXPECT_EQ(words.front(), "enqueued");
    int started = 0;
    std::string final;
    for (const std::string& word : words) {
      if (word == "started") {
        ++started;
        if (!final.empty()) {
          EXPECT_EQ(final, "stopped");
          ++startedAfterStop;
        }
      }
      if (word == "done" || word == "thrown" || word == "stopped") {
        EXPECT_EQ(final, "") << "a second final word: " << word;
        final = word;
      }
    }
    EXPECT_LE(started, 1);
    EXPECT_NE(final, "");
    ++finals[final];
  }

  // Every call made a task (the texts and the language are valid). Each task that ended
  // "thrown" failed its call; a call may also fail for a task that a stop ended first.
  EXPECT_EQ(static_cast<int>(statuses.size()), sayCalls.load());
  EXPECT_GE(sayErrors.load(), finals["thrown"]);
  EXPECT_LE(sayErrors.load() - finals["thrown"], finals["stopped"]);
  EXPECT_GT(finals["done"], 0);
  EXPECT_GT(finals["stopped"], 0);
  std::cout << "[ stress   ] tasks " << statuses.size() << ": done " << finals["done"]
            << ", stopped " << finals["stopped"] << ", thrown " << finals["thrown"]
            << "; stop calls " << stopCalls.load() << ", started after a stop " << startedAfterStop
            << std::endl;

  // The service still speaks afterwards.
  host.clearEvents();
  tts->say("Still here");
  const std::vector<std::string> last = statusEvents();
  ASSERT_FALSE(last.empty());
  EXPECT_NE(last.back().find("\"done\""), std::string::npos) << last.back();
}

}  // namespace
}  // namespace testing
}  // namespace bexko
