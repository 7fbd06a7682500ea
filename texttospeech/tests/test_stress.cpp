// Several threads saying and stopping at once: no deadlock, no lost task, every task ends
// exactly once. Meant to run under ThreadSanitizer too (-DBEXKO_SANITIZE=thread).
#include <zr/zrtexttospeech.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>

#include <zr/zrproxy.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;

using StressTest = SpeechServiceTest;

TEST_F(StressTest, SayersAndStoppersTogetherEndEveryTaskExactlyOnce) {
  host.addFakeModule("ZRAnimatedSpeech").addMethod("_mrkpauseCallback", 1);
  // Sentences alternate between the requested voice (Sam) and the language's default voice
  // (Kenny), so that every sentence applies a voice and voice failures can be injected.
  tts->setVoice("Sam");
  backend.setScript({{TTS_EVENT_WORD, 0, 0},
                     {TTS_EVENT_MARKER, 1, bytesForMs(30)},
                     {TTS_EVENT_MARKER, 64536, bytesForMs(10)},
                     {TTS_EVENT_MARKER, 2, bytesForMs(60)},
                     {TTS_EVENT_WORD, 6, 100}});
  backend.setBlocking(true);

  std::atomic<bool> running{true};
  std::atomic<int> sayCalls{0}, sayErrors{0}, otherErrors{0}, inside{0};
  std::vector<std::thread> threads;
  // Each thread repeats its action every few milliseconds until the end.
  const auto every = [&](int ms, std::function<void()> action) {
    ++inside;
    threads.emplace_back([&running, &inside, ms, action] {
      while (running) {
        action();
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      }
      --inside;
    });
  };
  for (int sayer = 0; sayer < 3; ++sayer) {
    every(0, [&] {
      const int i = sayCalls++;
      const std::string text = "Sentence " + std::to_string(i);
      try {
        i % 2 == 0 ? tts->say(text) : tts->say(text, "English");
      } catch (const ZR::ZRError&) {
        ++sayErrors;
      } catch (...) {
        ++otherErrors;
      }
    });
  }
  every(3, [&] { backend.release(); });  // lets blocked sentences end normally now and then
  every(11, [&] { tts->stopAll(); });
  // Aims at recent identifiers: some are running, some are long gone.
  every(7, [&] { tts->stop(sayCalls.load() - 1); });
  const ZR::ZRError injected("TextToSpeech", "setCurrentVoice", "injected failure");
  every(40, [&] { backend.failNext("setCurrentVoice", injected); });
  every(13, [&] {
    tts->pause();
    tts->resume();
  });

  std::this_thread::sleep_for(std::chrono::seconds(3));
  running = false;
  // Turning blocking off lets every sentence still in the engine end, so every thread leaves. A
  // say that never returns fails the test: the host's shut-down then stops every task, and a
  // thread that still does not leave ends the run rather than hang it.
  backend.setBlocking(false);
  if (!eventually([&] { return inside == 0; }, 30000)) {
    ADD_FAILURE() << inside << " threads still inside the service after 30 s";
    host.broker()->shutdown();
    if (!eventually([&] { return inside == 0; }, 10000)) std::abort();
  }
  for (std::thread& thread : threads) thread.join();
  if (HasFailure()) return;  // a thread got stuck: the service is gone
  EXPECT_EQ(otherErrors.load(), 0);

  // Every task's statuses in order: "enqueued", at most one "started", exactly one final word.
  // A stop may come between the speaking thread's last check and its "started".
  const std::map<std::string, std::string> finalOf = {
      {"enqueued started done", "done"},       {"enqueued started stopped", "stopped"},
      {"enqueued started thrown", "thrown"},   {"enqueued stopped", "stopped"},
      {"enqueued stopped started", "stopped"}, {"enqueued thrown", "thrown"}};
  std::map<int, std::string> histories;
  for (const RaisedEvent& event : host.events(ZR::ZRTextToSpeech::strStatusEvent)) {
    std::string& history = histories[event.value[0].toInt()];
    history += (history.empty() ? "" : " ") + event.value[1].toString();
  }
  std::map<std::string, int> finals;
  for (const auto& task : histories) {
    ASSERT_EQ(finalOf.count(task.second), 1u) << "task " << task.first << ": " << task.second;
    ++finals[finalOf.at(task.second)];
  }

  // Every call made a task (the texts and the language are valid). Each task that ended
  // "thrown" failed its call; a call may also fail for a task that a stop ended first.
  EXPECT_EQ(static_cast<int>(histories.size()), sayCalls.load());
  EXPECT_GE(sayErrors.load(), finals["thrown"]);
  EXPECT_LE(sayErrors.load() - finals["thrown"], finals["stopped"]);
  EXPECT_GT(finals["stopped"], 0);
  ASSERT_GT(finals["done"], 0);

  // The service still speaks afterwards, with the next identifier.
  tts->say("Still here");
  EXPECT_EQ(statusEvents().back(),
            "Status=[" + std::to_string(histories.size() + 1) + R"(, "done"])");
}

TEST_F(StressTest, SixteenClientsMixingEveryCallThroughTheHostLeaveEveryTaskEnded) {
  // Every call goes through the host by name, as clients' calls do; posted says get the host's
  // call ids. The scripted engine blocks each sentence until released or stopped.
  backend.setScript({{TTS_EVENT_WORD, 0, 0}, {TTS_EVENT_MARKER, 1, bytesForMs(20)}});
  backend.setBlocking(true);
  ZR::ZRProxy proxy(host.broker(), "ZRTextToSpeech");

  std::atomic<bool> running{true};
  std::atomic<int> unexpected{0}, inside{0};
  std::mutex postedMutex;
  std::vector<int> posted;
  std::vector<std::thread> threads;
  const auto client = [&](std::function<void(int)> action) {
    ++inside;
    threads.emplace_back([&running, &inside, &unexpected, action] {
      for (int round = 0; running; ++round) {
        try {
          action(round);
        } catch (const ZR::ZRError&) {
          // Refusals (a stop of a finished task, a value out of range) are answers, not faults.
        } catch (...) {
          ++unexpected;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      --inside;
    });
  };
  for (int i = 0; i < 3; ++i) {
    client([&](int round) { proxy.call<void>("say", "Direct sentence " + std::to_string(round)); });
  }
  for (int i = 0; i < 2; ++i) {
    client([&](int round) {
      const int id = proxy.post("say", "Posted sentence " + std::to_string(round));
      std::lock_guard<std::mutex> lock(postedMutex);
      posted.push_back(id);
    });
  }
  client([&](int) { backend.release(); });
  client([&](int) { backend.release(); });
  client([&](int round) {
    if (round % 5 == 0) proxy.call<void>("stopAll");
  });
  client([&](int) {
    int id = 0;
    {
      std::lock_guard<std::mutex> lock(postedMutex);
      if (!posted.empty()) id = posted[posted.size() / 2];
    }
    if (id) proxy.stop(id);
  });
  // The host's stop of an id that may be a direct say's task, a posted call's or nothing.
  client([&](int round) { proxy.stop(round % 50 + 1); });
  client([&](int round) {
    proxy.call<void>("setLanguage", std::string(round % 2 ? "French" : "English"));
  });
  client([&](int) { proxy.call<std::string>("getLanguage"); });
  client([&](int round) {
    proxy.call<void>("setParameter", std::string("defaultVoiceSpeed"), 80.0f + round % 40);
    proxy.call<float>("getParameter", std::string("speed"));
  });
  client([&](int round) {
    proxy.call<void>("setVolume", (round % 10) / 10.0f);
    proxy.call<float>("getVolume");
  });
  client([&](int) {
    proxy.call<void>("_pause");
    proxy.call<void>("_resume");
  });
  client([&](int) { proxy.call<std::string>("locale"); });
  ASSERT_EQ(threads.size(), 16u);

  std::this_thread::sleep_for(std::chrono::seconds(3));
  running = false;
  backend.setBlocking(false);
  if (!eventually([&] { return inside == 0; }, 30000)) {
    ADD_FAILURE() << inside << " clients still waiting for the service after 30 s";
    host.broker()->shutdown();
    if (!eventually([&] { return inside == 0; }, 10000)) std::abort();
  }
  for (std::thread& thread : threads) thread.join();
  if (HasFailure()) return;
  EXPECT_EQ(unexpected.load(), 0);
  // Posted says still running end too.
  std::vector<int> ids;
  {
    std::lock_guard<std::mutex> lock(postedMutex);
    ids = posted;
  }
  for (int id : ids) {
    EXPECT_TRUE(eventually([&] { return !proxy.isRunning(id); }, 30000)) << "posted say " << id;
  }

  // Every task that was enqueued ended exactly once.
  std::map<int, std::vector<std::string>> histories;
  for (const RaisedEvent& event : host.events(ZR::ZRTextToSpeech::strStatusEvent)) {
    histories[event.value[0].toInt()].push_back(event.value[1].toString());
  }
  ASSERT_FALSE(histories.empty());
  for (const auto& task : histories) {
    int endings = 0;
    for (const std::string& status : task.second) {
      endings += status == "done" || status == "stopped" || status == "thrown";
    }
    EXPECT_EQ(endings, 1) << "task " << task.first;
  }
  proxy.call<void>("setLanguage", std::string("English"));
  proxy.call<void>("say", std::string("Still here"));
  EXPECT_THAT(statusEvents().back(), ::testing::EndsWith(R"("done"])"));
}

}  // namespace
}  // namespace bexko::testing
