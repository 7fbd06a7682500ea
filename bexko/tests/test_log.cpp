#include <ko/log.h>

#include <cstdio>

#include "support.h"

namespace {

using namespace bexko::test;

namespace klog = ko::log;

/// Every test gets its own capture sink and leaves the default rules behind it. Categories live
/// for the whole process, so each test uses category names of its own.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    klog::setLevels("info");
    sinkId_ = klog::addSink(capture_);
  }
  void TearDown() override {
    klog::removeSink(sinkId_);
    klog::setLevels("info");
  }
  Strings messages() const {
    Strings texts;
    for (const auto& record : capture_->records()) texts.push_back(record.message);
    return texts;
  }

  std::shared_ptr<klog::CaptureSink> capture_ = std::make_shared<klog::CaptureSink>();
  int sinkId_ = 0;
};

/// A sink that does what the test tells it to.
struct CallbackSink : klog::Sink {
  explicit CallbackSink(std::function<void()> onWrite) : onWrite(std::move(onWrite)) {}
  void write(const klog::Record&) override { onWrite(); }
  std::function<void()> onWrite;
};

// Filtering and rules ----------------------------------------------------------------------------

TEST_F(LogTest, CategoryAdmitsOnlyRecordsAtOrAboveItsLevelAndBuildsNoOther) {
  klog::setLevels("test.filter.*=warning,test.silent=silent");
  klog::CategoryType category = klog::addCategory("test.filter.a");
  int formatted = 0;  // counts the records built: a filtered one must cost nothing
  for (auto level : {klog::fatal, klog::error, klog::warning, klog::info, klog::debug}) {
    KO_LOG(category, level, "f") << klog::levelName(level) << (++formatted, "");
  }
  EXPECT_EQ(formatted, 3);
  klog::log(klog::info, category, "info by call", "", "f", 0);
  klog::log(klog::warning, category, "warning by call", "", "f", 0);
  KO_LOG(klog::addCategory("test.silent"), klog::fatal, "f") << "silenced";
  EXPECT_EQ(messages(), (Strings{"fatal", "error", "warning", "warning by call"}));
  // An existing category follows new rules.
  klog::setLevels("test.filter.*=debug");
  KO_LOG(category, klog::debug, "f") << "now visible";
  EXPECT_EQ(messages().back(), "now visible");
}

TEST_F(LogTest, MostSpecificMatchingRuleWinsAndTheLaterAmongEquals) {
  const std::tuple<const char*, const char*, klog::LogLevel> cases[] = {
      {"*=info,audio.*=verbose", "audio.zrtexttospeech.main", klog::verbose},
      {"audio.*=verbose,*=info", "audio.zrtexttospeech.main", klog::verbose},
      {"*=info,audio.*=verbose", "audioout", klog::info},
      {"audio*=debug", "audioout", klog::debug},
      {"audio.*=error,audio.zr*=debug", "audio.zrx", klog::debug},
      {"audio.*=error,audio.*=debug", "audio.zrx", klog::debug},
      {"ZRAudio?layer=warning", "ZRAudioPLayer", klog::info},
      {"ZRAudio?layer=warning", "ZRAudioPlayer", klog::warning},
      {"verbose,x=fatal", "x", klog::fatal},
      {" x = Warning , y=6 ", "x", klog::warning},
      {"x=debug", "xy", klog::info}};
  for (const auto& [pattern, category, expected] : cases) {
    klog::setLevels(pattern);
    EXPECT_EQ(klog::levelFor(category), expected) << pattern << " for " << category;
  }
}

TEST_F(LogTest, LevelsAreNamedOrNumberedAndBadRulesChangeNothing) {
  for (int level = klog::silent; level <= klog::debug; ++level) {
    EXPECT_EQ(klog::parseLevel(klog::levelName(static_cast<klog::LogLevel>(level))), level);
    EXPECT_EQ(klog::parseLevel(std::to_string(level)), level);
  }
  EXPECT_THROW(klog::parseLevel("10"), std::invalid_argument);
  klog::setLevels("test.keep=debug");
  for (const char* bad : {"", "audio.*=loud", "=info", "a=info,,b=debug", "7", "a=", "-1"}) {
    EXPECT_THROW(klog::setLevels(bad), std::invalid_argument) << '"' << bad << '"';
  }
  EnvGuard env;
  env.set("BEXKO_LOG_LEVEL", "test.keep=shout");
  EXPECT_FALSE(klog::setLevelsFromEnvironment());
  EXPECT_EQ(klog::levelFor("test.keep"), klog::debug);
  env.set("BEXKO_LOG_LEVEL", "test.env.*=verbose");
  EXPECT_TRUE(klog::setLevelsFromEnvironment());
  EXPECT_EQ(klog::levelFor("test.env.x"), klog::verbose);
}

// Records and sinks ------------------------------------------------------------------------------

TEST_F(LogTest, CaptureSinkKeepsExactRecords) {
  klog::CategoryType category = klog::addCategory("test.capture");
  klog::log(klog::error, category, "by call", "engine.cpp", "startSynthetizer", 17);
  KO_LOG(category, klog::warning, "stop") << "No task with the id " << 5;
  EXPECT_NO_THROW(klog::log(klog::error, nullptr, "no category", nullptr, nullptr, 0));
  const auto records = capture_->records();
  Strings described;
  for (const auto& r : records) {
    described.push_back(std::string(klog::levelName(r.level)) + " " + r.category + " " +
                        r.function + " " + r.file + ":" + std::to_string(r.line) + " " + r.message);
  }
  EXPECT_EQ(described, (Strings{"error test.capture startSynthetizer engine.cpp:17 by call",
                                "warning test.capture stop :0 No task with the id 5"}));
  EXPECT_LE(records.at(0).time, records.at(1).time);
}

// The capture sink is installed again behind the throwing one, which must not silence it.
TEST_F(LogTest, ThrowingSinkIsSkippedAndRemovedSinkHearsNothingMore) {
  int throwingCalls = 0;
  const int throwingId = klog::addSink(std::make_shared<CallbackSink>([&] {
    ++throwingCalls;
    throw std::runtime_error("disk full");
  }));
  klog::removeSink(sinkId_);
  sinkId_ = klog::addSink(capture_);
  klog::CategoryType category = klog::addCategory("test.sinks");
  EXPECT_NO_THROW(KO_LOG(category, klog::error, "f") << "first");
  klog::removeSink(throwingId);
  klog::removeSink(throwingId);  // removing twice is harmless
  KO_LOG(category, klog::error, "f") << "second";
  EXPECT_EQ(throwingCalls, 1);
  // A sink that logs itself does not deadlock.
  const int reentrantId = klog::addSink(std::make_shared<CallbackSink>(
      [category] { klog::log(klog::error, category, "from inside a sink", "", "write", 0); }));
  KO_LOG(category, klog::error, "f") << "third";
  klog::removeSink(reentrantId);
  EXPECT_EQ(messages(), (Strings{"first", "second", "third"}));
}

// Threads that name the same new category get the same one, and every record of each thread
// arrives, in the thread's order.
TEST_F(LogTest, ConcurrentThreadsShareCategoriesAndKeepTheirRecordsInOrder) {
  std::vector<klog::CategoryType> categories(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&categories, t] {
      categories[t] = klog::addCategory("test.concurrent");
      for (int i = 0; i < 500; ++i) KO_LOG(categories[t], klog::info, "worker") << t << ' ' << i;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_THAT(categories, ::testing::Each(klog::addCategory("test.concurrent")));
  const Strings texts = messages();
  EXPECT_EQ(texts.size(), 2000u);
  std::vector<int> next(4, 0);
  for (const auto& text : texts) {
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(text.c_str(), "%d %d", &t, &i), 2);
    ASSERT_EQ(i, next.at(t)++) << "thread " << t;
  }
}

TEST_F(LogTest, FileSinkAppendsOneFlushedLinePerRecord) {
  const auto folder = freshFolder("log");
  EXPECT_THROW(klog::FileSink sink((folder / "no/such/folder/x.log").string()), std::runtime_error);
  const std::string path = (folder / "log.txt").string();
  std::ofstream(path) << "earlier line\n";
  const int fileId = klog::addSink(std::make_shared<klog::FileSink>(path));
  klog::CategoryType category = klog::addCategory("test.file");
  KO_LOG(category, klog::warning, "say") << "first";
  KO_LOG(category, klog::error, "say") << "two\nlines";
  // Flushed per record: readable while the sink is still installed.
  std::ifstream in(path);
  Strings lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  klog::removeSink(fileId);
  EXPECT_THAT(lines,
              ::testing::ElementsAre("earlier line", HasSubstr(" warning test.file say: first"),
                                     HasSubstr(" error test.file say: two\\nlines")));
}

// A message may carry a client's text. The console and the file show each record as one line
// with no control byte, so a client can neither forge a line nor drive the terminal; the
// capture that tests read keeps the text as it was logged.
TEST_F(LogTest, ConsoleAndFileSinksEscapeControlBytesAndTheCaptureKeepsThem) {
  const std::string message =
      "red \x1b[31malert\x1b[0m\n2026-01-01 00:00:00.000 info bexko: forged\r\tbell\x07\x7f "
      "caf\xc3\xa9 C:\\n";
  const std::string shown =
      "red \\x1b[31malert\\x1b[0m\\n2026-01-01 00:00:00.000 info bexko: forged\\r\\tbell\\x07"
      "\\x7f caf\xc3\xa9 C:\\n";
  const std::string path = (freshFolder("escape") / "log.txt").string();
  const int fileId = klog::addSink(std::make_shared<klog::FileSink>(path));
  const int consoleId = klog::addSink(std::make_shared<klog::ConsoleSink>());
  klog::CategoryType category = klog::addCategory("test.escape");
  ::testing::internal::CaptureStderr();
  KO_LOG(category, klog::warning, "say") << message;
  const std::string console = ::testing::internal::GetCapturedStderr();
  klog::removeSink(consoleId);
  klog::removeSink(fileId);
  std::ifstream in(path, std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  for (const std::string& written : {console, file}) {
    ASSERT_FALSE(written.empty());
    EXPECT_EQ(written.find('\n'), written.size() - 1) << written;
    EXPECT_EQ(written.substr(written.find(" warning ")),
              " warning test.escape say: " + shown + "\n");
    for (std::size_t i = 0; i + 1 < written.size(); ++i) {
      const auto byte = static_cast<unsigned char>(written[i]);
      EXPECT_TRUE(byte >= 0x20 && byte != 0x7f) << "control byte " << int(byte) << " at " << i;
    }
  }
  ASSERT_FALSE(capture_->records().empty());
  EXPECT_EQ(capture_->records().back().message, message);
}

}  // namespace
