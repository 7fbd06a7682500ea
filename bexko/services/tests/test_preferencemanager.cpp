#include <bexko/services/preferencemanager.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <sqlite3.h>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/services/builtinservices.h>
#include <bexko/testing/testhost.h>
#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ZR::ZRValue;

const std::string domain = "com.veltra.robotwebpage";

class PreferenceManagerTest : public ::testing::Test {
 protected:
  std::string databaseFile() const { return host.dataDir() + "/preferences.db"; }

  TestHost host;
  ZR::ZRPreferenceManagerProxy prefs{host.broker()};
};

/// A direct connection to the database, for what the module does not show.
class Database {
 public:
  explicit Database(const std::string& path) {
    EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db_));
    sqlite3_busy_timeout(db_, 5000);
  }
  ~Database() { sqlite3_close(db_); }
  std::string text(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    }
    sqlite3_finalize(stmt);
    return out;
  }
  int exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }

 private:
  sqlite3* db_ = nullptr;
};

TEST_F(PreferenceManagerTest, MissingKeyIsZRError) {
  try {
    prefs.getValue(domain, "ChosenLanguage");
    FAIL() << "getValue of a missing key returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("ZRPreferenceManager", e.moduleName());
    EXPECT_EQ("getValue", e.methodName());
    EXPECT_NE(std::string(e.what()).find("ChosenLanguage"), std::string::npos);
  }
}

struct StoredCase {
  const char* label;
  ZRValue value;
};

class PreferenceValueTypeTest : public PreferenceManagerTest,
                                public ::testing::WithParamInterface<StoredCase> {};

TEST_P(PreferenceValueTypeTest, ValueComesBackWithItsType) {
  prefs.setValue(domain, "Key", GetParam().value);
  ZRValue back = prefs.getValue(domain, "Key");
  EXPECT_EQ(GetParam().value.getType(), back.getType());
  EXPECT_EQ(GetParam().value, back);
}

INSTANTIATE_TEST_SUITE_P(
    Values, PreferenceValueTypeTest,
    ::testing::Values(
        StoredCase{"String", ZRValue("English")}, StoredCase{"EmptyString", ZRValue("")},
        StoredCase{"Int", ZRValue(-2147483647 - 1)}, StoredCase{"Float", ZRValue(0.1f)},
        StoredCase{"Bool", ZRValue(false)}, StoredCase{"Empty", ZRValue()},
        StoredCase{"NestedArray",
                   ZRValue(ZRValue::Array{ZRValue(1), ZRValue::array(std::string("a"), 2.5f),
                                          ZRValue(ZRValue::Array{})})}),
    [](const ::testing::TestParamInfo<StoredCase>& info) { return info.param.label; });

TEST_F(PreferenceManagerTest, SetReplacesAndRemoveDeletes) {
  prefs.setValue(domain, "ChosenLanguage", ZRValue("French"));
  prefs.setValue(domain, "ChosenLanguage", ZRValue("English"));
  EXPECT_EQ(ZRValue("English"), prefs.getValue(domain, "ChosenLanguage"));

  prefs.removeValue(domain, "ChosenLanguage");
  EXPECT_THROW(prefs.getValue(domain, "ChosenLanguage"), ZR::ZRError);
  EXPECT_NO_THROW(prefs.removeValue(domain, "ChosenLanguage"));
}

TEST_F(PreferenceManagerTest, ListsValuesOfADomainAndTheDomains) {
  prefs.setValue("b.domain", "zeta", ZRValue(2));
  prefs.setValue("b.domain", "alpha", ZRValue("one"));
  prefs.setValue("a.domain", "only", ZRValue(true));

  EXPECT_EQ(ZRValue(ZRValue::Array{ZRValue::array(std::string("alpha"), std::string("one")),
                                   ZRValue::array(std::string("zeta"), 2)}),
            prefs.getValueList("b.domain"));
  EXPECT_EQ(0, prefs.getValueList("unknown.domain").getSize());
  EXPECT_EQ((std::vector<std::string>{"a.domain", "b.domain"}), prefs.getDomainList());
}

TEST_F(PreferenceManagerTest, EmptyDomainOrKeyIsRejected) {
  EXPECT_THROW(prefs.setValue("", "key", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(prefs.setValue(domain, "", ZRValue(1)), ZR::ZRError);
}

TEST_F(PreferenceManagerTest, ValuesSurviveANewHostOnTheSameFolders) {
  host.setPreference(domain, "ChosenLanguage", ZRValue("Japanese"));
  host.setPreference("other", "Volume", ZRValue(0.75f));
  host.broker()->shutdown();

  auto broker = ZR::ZRBroker::create("second-host");
  auto services = bexko::services::createBuiltinServices(broker);
  ZR::ZRPreferenceManagerProxy reopened(broker);
  EXPECT_EQ(ZRValue("Japanese"), reopened.getValue(domain, "ChosenLanguage"));
  EXPECT_EQ(ZRValue(0.75f), reopened.getValue("other", "Volume"));
  EXPECT_THROW(reopened.getValue(domain, "Missing"), ZR::ZRError);
  broker->shutdown();
}

TEST_F(PreferenceManagerTest, DatabaseIsVersionedAndInWalMode) {
  EXPECT_FALSE(fs::exists(databaseFile()));  // created on first use only
  prefs.setValue(domain, "Key", ZRValue(1));
  ASSERT_TRUE(fs::exists(databaseFile()));

  Database db(databaseFile());
  EXPECT_EQ(std::to_string(bexko::services::PreferenceManager::schemaVersion),
            db.text("PRAGMA user_version"));
  EXPECT_EQ("wal", db.text("PRAGMA journal_mode"));
}

TEST_F(PreferenceManagerTest, ConcurrentWritersAllLand) {
  const int threads = 4, perThread = 40;
  std::vector<std::thread> writers;
  for (int t = 0; t < threads; ++t) {
    writers.emplace_back([this, t] {
      ZR::ZRPreferenceManagerProxy own(host.broker());
      for (int i = 0; i < perThread; ++i) {
        own.setValue(domain, "k" + std::to_string(t) + "_" + std::to_string(i),
                     ZRValue(t * 1000 + i));
      }
    });
  }
  for (auto& writer : writers) writer.join();

  ZRValue all = prefs.getValueList(domain);
  ASSERT_EQ(threads * perThread, all.getSize());
  for (int t = 0; t < threads; ++t) {
    for (int i = 0; i < perThread; ++i) {
      EXPECT_EQ(ZRValue(t * 1000 + i),
                prefs.getValue(domain, "k" + std::to_string(t) + "_" + std::to_string(i)));
    }
  }
}

TEST_F(PreferenceManagerTest, WriterWaitsForAnotherProcessHoldingTheDatabase) {
  prefs.setValue(domain, "Key", ZRValue(1));
  Database other(databaseFile());
  ASSERT_EQ(SQLITE_OK, other.exec("BEGIN IMMEDIATE"));

  auto write = std::async(std::launch::async, [this] { prefs.setValue(domain, "Key", 2); });
  EXPECT_EQ(std::future_status::timeout, write.wait_for(std::chrono::milliseconds(200)));
  ASSERT_EQ(SQLITE_OK, other.exec("COMMIT"));

  EXPECT_NO_THROW(write.get());
  EXPECT_EQ(ZRValue(2), prefs.getValue(domain, "Key"));
}

}  // namespace
