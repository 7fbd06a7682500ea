#include <ko/log.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace klog = ko::log;

/// Every test gets its own capture sink and leaves the default rules behind it. Categories live
/// for the whole process, so each test uses category names of its own.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    klog::setLevels("info");
    capture_ = std::make_shared<klog::CaptureSink>();
    sinkId_ = klog::addSink(capture_);
  }
  void TearDown() override {
    klog::removeSink(sinkId_);
    klog::setLevels("info");
  }
  std::vector<klog::Record> records() const { return capture_->records(); }

  std::shared_ptr<klog::CaptureSink> capture_;
  int sinkId_ = 0;
};

/// Counts how often it is formatted, to prove that a filtered record is never built.
struct Counted {
  int* count;
};
std::ostream& operator<<(std::ostream& out, const Counted& counted) {
  ++*counted.count;
  return out << "counted";
}

// --- Filtering ---------------------------------------------------------------------------------

TEST_F(LogTest, CategoryAdmitsOnlyRecordsAtOrAboveItsLevel) {
  klog::setLevels("test.filter.*=warning");
  klog::CategoryType category = klog::addCategory("test.filter.a");
  KO_LOG(category, klog::fatal, "f") << "fatal";
  KO_LOG(category, klog::error, "f") << "error";
  KO_LOG(category, klog::warning, "f") << "warning";
  KO_LOG(category, klog::info, "f") << "info";
  KO_LOG(category, klog::debug, "f") << "debug";
  klog::log(klog::info, category, "info by call", "", "f", 0);
  klog::log(klog::warning, category, "warning by call", "", "f", 0);

  std::vector<std::string> texts;
  for (const auto& record : records()) texts.push_back(record.message);
  EXPECT_EQ(texts, (std::vector<std::string>{"fatal", "error", "warning", "warning by call"}));
}

TEST_F(LogTest, RecordBelowLevelIsNeverFormatted) {
  klog::CategoryType category = klog::addCategory("test.lazy");
  int formatted = 0;
  KO_LOG(category, klog::verbose, "f") << Counted{&formatted};
  KO_LOG(category, klog::debug, "f") << "x" << Counted{&formatted};
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(records().empty());

  KO_LOG(category, klog::info, "f") << Counted{&formatted};
  EXPECT_EQ(formatted, 1);
  ASSERT_EQ(records().size(), 1u);
  EXPECT_EQ(records()[0].message, "counted");
}

TEST_F(LogTest, SilentCategoryDropsEverything) {
  klog::setLevels("test.silent=silent");
  klog::CategoryType category = klog::addCategory("test.silent");
  KO_LOG(category, klog::fatal, "f") << "x";
  EXPECT_TRUE(records().empty());
}

TEST_F(LogTest, ExistingCategoriesFollowNewRules) {
  klog::CategoryType category = klog::addCategory("test.follow");
  EXPECT_EQ(category->level(), klog::info);
  klog::setLevels("test.follow=debug");
  EXPECT_EQ(category->level(), klog::debug);
  KO_LOG(category, klog::debug, "f") << "now visible";
  ASSERT_EQ(records().size(), 1u);
  klog::setLevels("error");
  EXPECT_EQ(category->level(), klog::error);
}

TEST_F(LogTest, SameNameYieldsSameCategoryAcrossThreads) {
  std::vector<klog::CategoryType> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = klog::addCategory("test.shared.category"); });
  }
  for (auto& thread : threads) thread.join();
  for (auto* category : seen) EXPECT_EQ(category, seen[0]);
  EXPECT_EQ(seen[0]->name(), "test.shared.category");
}

// --- Rules -------------------------------------------------------------------------------------

struct RuleCase {
  const char* pattern;
  const char* category;
  klog::LogLevel expected;
};

class LogRules : public ::testing::TestWithParam<RuleCase> {
 protected:
  void TearDown() override { klog::setLevels("info"); }
};

TEST_P(LogRules, MostSpecificMatchingRuleWins) {
  klog::setLevels(GetParam().pattern);
  EXPECT_EQ(klog::levelFor(GetParam().category), GetParam().expected)
      << GetParam().pattern << " for " << GetParam().category;
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogRules,
    ::testing::Values(
        RuleCase{"*=info,audio.*=verbose", "audio.zrtexttospeech.main", klog::verbose},
        RuleCase{"audio.*=verbose,*=info", "audio.zrtexttospeech.main", klog::verbose},
        RuleCase{"*=info,audio.*=verbose", "audioout", klog::info},
        RuleCase{"audio*=debug", "audioout", klog::debug},
        RuleCase{"audio.*=error,audio.zr*=debug", "audio.zrx", klog::debug},
        RuleCase{"audio.zr*=debug,audio.*=error", "audio.zrx", klog::debug},
        RuleCase{"audio.*=error,audio.*=debug", "audio.zrx", klog::debug},
        RuleCase{"ZRAudio?layer=warning", "ZRAudioPLayer", klog::info},
        RuleCase{"ZRAudio??ayer=warning", "ZRAudioPLayer", klog::warning},
        RuleCase{"ZRAudio?layer=warning", "ZRAudioPlayer", klog::warning},
        RuleCase{"a?=debug", "abc", klog::info}, RuleCase{"debug", "anything.at.all", klog::debug},
        RuleCase{"2", "anything", klog::error}, RuleCase{"verbose,x=fatal", "x", klog::fatal},
        RuleCase{" x = Warning , y=6 ", "x", klog::warning},
        RuleCase{" x = Warning , y=6 ", "y", klog::debug}, RuleCase{"x=debug", "xy", klog::info}));

TEST(LogRulesInvalid, BadPatternThrowsAndKeepsRules) {
  klog::setLevels("test.keep=debug");
  for (const char* bad : {"", "audio.*=loud", "=info", "a=info,,b=debug", "7", "a=", "-1"}) {
    EXPECT_THROW(klog::setLevels(bad), std::invalid_argument) << '"' << bad << '"';
  }
  EXPECT_EQ(klog::levelFor("test.keep"), klog::debug);
  klog::setLevels("info");
}

TEST(LogRulesInvalid, ParseLevelAcceptsNamesAndNumbers) {
  const char* names[] = {"silent", "fatal", "error", "warning", "info", "verbose", "debug"};
  for (int level = 0; level <= 6; ++level) {
    EXPECT_EQ(klog::parseLevel(names[level]), level);
    EXPECT_EQ(klog::parseLevel(std::to_string(level)), level);
    EXPECT_STREQ(klog::levelName(static_cast<klog::LogLevel>(level)), names[level]);
  }
  EXPECT_EQ(klog::parseLevel("VERBOSE"), klog::verbose);
  EXPECT_THROW(klog::parseLevel("loud"), std::invalid_argument);
  EXPECT_THROW(klog::parseLevel("10"), std::invalid_argument);
}

class LogEnvironment : public ::testing::Test {
 protected:
  void SetUp() override { klog::setLevels("info"); }
  void TearDown() override {
    unsetenv("BEXKO_LOG_LEVEL");
    klog::setLevels("info");
  }
};

TEST_F(LogEnvironment, AppliesVariableWhenSet) {
  setenv("BEXKO_LOG_LEVEL", "test.env.*=debug", 1);
  EXPECT_TRUE(klog::setLevelsFromEnvironment());
  EXPECT_EQ(klog::levelFor("test.env.x"), klog::debug);
  EXPECT_EQ(klog::levelFor("other"), klog::info);
}

TEST_F(LogEnvironment, MalformedVariableLeavesRulesUnchanged) {
  klog::setLevels("test.env2=warning");
  setenv("BEXKO_LOG_LEVEL", "test.env2=shout", 1);
  EXPECT_FALSE(klog::setLevelsFromEnvironment());
  EXPECT_EQ(klog::levelFor("test.env2"), klog::warning);
}

TEST_F(LogEnvironment, UnsetVariableChangesNothing) {
  klog::setLevels("test.env3=error");
  unsetenv("BEXKO_LOG_LEVEL");
  EXPECT_TRUE(klog::setLevelsFromEnvironment());
  EXPECT_EQ(klog::levelFor("test.env3"), klog::error);
}

// --- Records and sinks -------------------------------------------------------------------------

TEST_F(LogTest, CaptureSinkKeepsExactRecords) {
  klog::CategoryType category = klog::addCategory("test.capture");
  KO_LOG(category, klog::warning, "stop") << "No task with the id " << 5;
  klog::log(klog::error, category, "by call", "engine.cpp", "startSynthetizer", 17);

  const auto captured = records();
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].level, klog::warning);
  EXPECT_EQ(captured[0].category, "test.capture");
  EXPECT_EQ(captured[0].function, "stop");
  EXPECT_EQ(captured[0].message, "No task with the id 5");
  EXPECT_EQ(captured[0].file, "");
  EXPECT_EQ(captured[0].line, 0);
  EXPECT_EQ(captured[1].level, klog::error);
  EXPECT_EQ(captured[1].function, "startSynthetizer");
  EXPECT_EQ(captured[1].file, "engine.cpp");
  EXPECT_EQ(captured[1].line, 17);
  EXPECT_LE(captured[0].time, captured[1].time);

  capture_->clear();
  EXPECT_TRUE(records().empty());
}

TEST_F(LogTest, NullCategoryOrNullFunctionIsHarmless) {
  EXPECT_NO_THROW(klog::log(klog::error, nullptr, "x", nullptr, nullptr, 0));
  klog::log(klog::error, klog::addCategory("test.nullfn"), "x", nullptr, nullptr, 0);
  ASSERT_EQ(records().size(), 1u);
  EXPECT_EQ(records()[0].function, "");
}

class ThrowingSink : public klog::Sink {
 public:
  void write(const klog::Record&) override {
    ++calls;
    throw std::runtime_error("disk full");
  }
  int calls = 0;
};

TEST_F(LogTest, ThrowingSinkIsSkippedAndLogNeverThrows) {
  auto throwing = std::make_shared<ThrowingSink>();
  const int id = klog::addSink(throwing);
  auto after = std::make_shared<klog::CaptureSink>();
  const int afterId = klog::addSink(after);
  klog::CategoryType category = klog::addCategory("test.throwing");

  EXPECT_NO_THROW(klog::log(klog::error, category, "first", "", "f", 0));
  EXPECT_NO_THROW(KO_LOG(category, klog::error, "f") << "second");

  EXPECT_EQ(throwing->calls, 2);
  EXPECT_EQ(after->records().size(), 2u);
  EXPECT_EQ(records().size(), 2u);
  klog::removeSink(id);
  klog::removeSink(afterId);
}

TEST_F(LogTest, RemovedSinkReceivesNothingMore) {
  auto second = std::make_shared<klog::CaptureSink>();
  const int id = klog::addSink(second);
  klog::CategoryType category = klog::addCategory("test.remove");
  KO_LOG(category, klog::info, "f") << "one";
  klog::removeSink(id);
  KO_LOG(category, klog::info, "f") << "two";
  ASSERT_EQ(second->records().size(), 1u);
  EXPECT_EQ(second->records()[0].message, "one");
  EXPECT_EQ(records().size(), 2u);
  klog::removeSink(id);  // removing twice is harmless
}

class ReentrantSink : public klog::Sink {
 public:
  explicit ReentrantSink(klog::CategoryType category) : category_(category) {}
  void write(const klog::Record&) override {
    klog::log(klog::error, category_, "from inside a sink", "", "write", 0);
  }

 private:
  klog::CategoryType category_;
};

TEST_F(LogTest, SinkThatLogsDoesNotDeadlock) {
  klog::CategoryType category = klog::addCategory("test.reentrant");
  const int id = klog::addSink(std::make_shared<ReentrantSink>(category));
  KO_LOG(category, klog::error, "f") << "outer";
  klog::removeSink(id);
  ASSERT_EQ(records().size(), 1u);
  EXPECT_EQ(records()[0].message, "outer");
}

TEST_F(LogTest, ConcurrentRecordsAllArriveInPerThreadOrder) {
  klog::CategoryType category = klog::addCategory("test.concurrent");
  constexpr int kThreads = 4;
  constexpr int kRecords = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([category, t] {
      for (int i = 0; i < kRecords; ++i) {
        KO_LOG(category, klog::info, "worker") << t << ' ' << i;
      }
    });
  }
  for (auto& thread : threads) thread.join();

  const auto captured = records();
  ASSERT_EQ(captured.size(), static_cast<std::size_t>(kThreads * kRecords));
  std::vector<int> next(kThreads, 0);
  for (const auto& record : captured) {
    int t = -1;
    int i = -1;
    ASSERT_EQ(std::sscanf(record.message.c_str(), "%d %d", &t, &i), 2);
    ASSERT_EQ(i, next[t]) << "thread " << t;
    ++next[t];
  }
}

TEST_F(LogTest, FileSinkAppendsOneLinePerRecord) {
  const std::string path = std::string(std::getenv("BEXKO_TEST_ROOT")) + "/log-append.txt";
  { std::ofstream(path) << "earlier line\n"; }
  {
    auto sink = std::make_shared<klog::FileSink>(path);
    const int id = klog::addSink(sink);
    klog::CategoryType category = klog::addCategory("test.file");
    KO_LOG(category, klog::warning, "say") << "first";
    KO_LOG(category, klog::error, "say") << "two\nlines";
    // Flushed per record: readable before the sink goes away.
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    klog::removeSink(id);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_NE(lines[1].find(" warning test.file say: first"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find(" error test.file say: two\\nlines"), std::string::npos) << lines[2];
  }
}

TEST(LogFileSink, UnopenablePathThrows) {
  const std::string path = std::string(std::getenv("BEXKO_TEST_ROOT")) + "/no/such/folder/x.log";
  EXPECT_THROW(klog::FileSink sink(path), std::runtime_error);
}

TEST_F(LogTest, ConsoleSinkWritesOneLineToStandardError) {
  const int id = klog::addSink(std::make_shared<klog::ConsoleSink>());
  klog::CategoryType category = klog::addCategory("test.console");
  ::testing::internal::CaptureStderr();
  KO_LOG(category, klog::info, "init") << "ready";
  const std::string output = ::testing::internal::GetCapturedStderr();
  klog::removeSink(id);
  EXPECT_NE(output.find(" info test.console init: ready\n"), std::string::npos) << output;
  EXPECT_EQ(output.find('\n'), output.size() - 1) << output;
}

}  // namespace
