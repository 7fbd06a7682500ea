#include <bexko/services/preferencemanager.h>

#include <mutex>
#include <utility>

#include <sqlite3.h>

#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrerror.h>
#include <zr/zrpreferencesproxy.h>

namespace bexko {
namespace services {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.services.preferencemanager");
  return category;
}

const char* const moduleName = "ZRPreferenceManager";
const int busyTimeoutMs = 5000;

/// One prepared statement, finalized when it goes out of scope.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql, const char* method) : db_(db), method_(method) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) fail("prepare");
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int index, const std::string& text) {
    if (sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
      fail("bind");
    }
  }
  /// Steps once; true while there is a row.
  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail("step");
  }
  std::string text(int column) const {
    const unsigned char* data = sqlite3_column_text(stmt_, column);
    int size = sqlite3_column_bytes(stmt_, column);
    return data ? std::string(reinterpret_cast<const char*>(data), size) : std::string();
  }
  int integer(int column) const { return sqlite3_column_int(stmt_, column); }

 private:
  [[noreturn]] void fail(const char* what) {
    throw ZR::ZRError(
        moduleName, method_,
        std::string("Preference database error (") + what + "): " + sqlite3_errmsg(db_));
  }

  sqlite3* db_;
  const char* method_;
  sqlite3_stmt* stmt_ = nullptr;
};

void execute(sqlite3* db, const char* sql, const char* method) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw ZR::ZRError(moduleName, method, "Preference database error: " + text);
  }
}

void checkDomainAndKey(const std::string& domain, const std::string& key, const char* method) {
  if (domain.empty()) throw ZR::ZRError(moduleName, method, "The preference domain is empty");
  if (key.empty()) throw ZR::ZRError(moduleName, method, "The preference key is empty");
}

// Values are kept in the text form of preference files, which keeps their type and reads
// floats back exactly.
std::string encode(const ZR::ZRValue& value) { return ZR::formatPreferenceXml(value); }

ZR::ZRValue decode(const std::string& text, const std::string& domain, const std::string& key,
                   const char* method) {
  try {
    return ZR::parsePreferenceXml(text);
  } catch (const ZR::ZRError& e) {
    throw ZR::ZRError(moduleName, method,
                      "The stored value of \"" + key + "\" in the domain \"" + domain +
                          "\" is unreadable: " + e.what());
  }
}

}  // namespace

struct PreferenceManager::Impl {
  std::mutex mutex;
  sqlite3* db = nullptr;

  ~Impl() { close(); }

  void close() {
    if (db) {
      sqlite3_close_v2(db);
      db = nullptr;
    }
  }

  /// The open connection, opening and preparing the database on first use. Called with `mutex`.
  sqlite3* connection(const char* method) {
    if (db) return db;
    std::string path;
    try {
      path = ko::path::userWritableDataPath("bexko") + "/preferences.db";
    } catch (const std::exception& e) {
      throw ZR::ZRError(moduleName, method,
                        "Cannot create the data folder: " + std::string(e.what()));
    }
    sqlite3* handle = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &handle,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
      std::string text = handle ? sqlite3_errmsg(handle) : sqlite3_errstr(rc);
      sqlite3_close_v2(handle);
      throw ZR::ZRError(moduleName, method,
                        "Cannot open the preference database " + path + ": " + text);
    }
    try {
      prepare(handle, method);
    } catch (...) {
      sqlite3_close_v2(handle);
      throw;
    }
    db = handle;
    KO_LOG(logCategory(), ko::log::verbose, method) << "Opened the preference database " << path;
    return db;
  }

  static void prepare(sqlite3* handle, const char* method) {
    sqlite3_busy_timeout(handle, busyTimeoutMs);
    {
      Statement wal(handle, "PRAGMA journal_mode=WAL", method);
      wal.step();
    }
    int version = 0;
    {
      Statement query(handle, "PRAGMA user_version", method);
      if (query.step()) version = query.integer(0);
    }
    if (version > schemaVersion) {
      throw ZR::ZRError(moduleName, method,
                        "The preference database has schema version " + std::to_string(version) +
                            ", newer than this host's " + std::to_string(schemaVersion));
    }
    if (version < 1) {
      execute(handle,
              "BEGIN IMMEDIATE;"
              "CREATE TABLE IF NOT EXISTS preferences ("
              "  domain TEXT NOT NULL,"
              "  key TEXT NOT NULL,"
              "  value TEXT NOT NULL,"
              "  PRIMARY KEY (domain, key)) WITHOUT ROWID;"
              "PRAGMA user_version = 1;"
              "COMMIT;",
              method);
    }
  }
};

PreferenceManager::PreferenceManager(boost::shared_ptr<ZR::ZRBroker> broker)
    : ZR::ZRModule(broker, moduleName), impl_(new Impl) {
  setModuleDescription(
      "Preferences by domain and key, kept in the database \"preferences.db\" of the data "
      "folder of the application \"bexko\". Values keep their type.");
  addModuleExample("python",
                   "prefs = ZRProxy(\"ZRPreferenceManager\")\n"
                   "prefs.setValue(\"com.veltra.robotwebpage\", \"ChosenLanguage\", \"English\")\n"
                   "print(prefs.getValue(\"com.veltra.robotwebpage\", \"ChosenLanguage\"))");

  functionName("getValue", getName(), "Returns a preference value. Fails for a missing key.");
  addParam("domain", "Domain of the preference, such as \"com.veltra.robotwebpage\".");
  addParam("key", "Name of the preference.");
  setReturn("value", "The stored value.");
  addMethodExample("python",
                   "print(prefs.getValue(\"com.veltra.robotwebpage\", \"ChosenLanguage\"))");
  bindMethodOverload(ZR::createFunctor(this, &PreferenceManager::getValue));

  functionName("setValue", getName(), "Stores a preference value, replacing any previous one.");
  addParam("domain", "Domain of the preference.");
  addParam("key", "Name of the preference.");
  addParam("value", "The value to store.");
  addMethodExample("python",
                   "prefs.setValue(\"com.veltra.robotwebpage\", \"ChosenLanguage\", \"French\")");
  bindMethodOverload(ZR::createFunctor(this, &PreferenceManager::setValue));

  functionName("removeValue", getName(),
               "Removes a preference value; a missing one changes nothing.");
  addParam("domain", "Domain of the preference.");
  addParam("key", "Name of the preference.");
  addMethodExample("python", "prefs.removeValue(\"com.veltra.robotwebpage\", \"ChosenLanguage\")");
  bindMethodOverload(ZR::createFunctor(this, &PreferenceManager::removeValue));

  functionName("getValueList", getName(), "Returns every preference of a domain.");
  addParam("domain", "Domain of the preferences.");
  setReturn("values", "[key, value] pairs in key order.");
  addMethodExample("python", "print(prefs.getValueList(\"com.veltra.robotwebpage\"))");
  bindMethodOverload(ZR::createFunctor(this, &PreferenceManager::getValueList));

  functionName("getDomainList", getName(), "Returns the domains that hold preferences.");
  setReturn("domains", "Domain names in name order.");
  addMethodExample("python", "print(prefs.getDomainList())");
  bindMethodOverload(ZR::createFunctor(this, &PreferenceManager::getDomainList));
}

PreferenceManager::~PreferenceManager() = default;

std::string PreferenceManager::databasePath() {
  std::vector<std::string> folders = ko::path::dataPaths("bexko");
  return (folders.empty() ? std::string() : folders.front()) + "/preferences.db";
}

ZR::ZRValue PreferenceManager::getValue(const std::string& domain, const std::string& key) {
  const char* method = "getValue";
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Statement query(impl_->connection(method),
                  "SELECT value FROM preferences WHERE domain = ?1 AND key = ?2", method);
  query.bind(1, domain);
  query.bind(2, key);
  if (!query.step()) {
    throw ZR::ZRError(moduleName, method,
                      "No preference \"" + key + "\" in the domain \"" + domain + "\"");
  }
  return decode(query.text(0), domain, key, method);
}

void PreferenceManager::setValue(const std::string& domain, const std::string& key,
                                 const ZR::ZRValue& value) {
  const char* method = "setValue";
  checkDomainAndKey(domain, key, method);
  std::string text = encode(value);
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Statement insert(impl_->connection(method),
                   "INSERT INTO preferences (domain, key, value) VALUES (?1, ?2, ?3) "
                   "ON CONFLICT (domain, key) DO UPDATE SET value = excluded.value",
                   method);
  insert.bind(1, domain);
  insert.bind(2, key);
  insert.bind(3, text);
  insert.step();
  KO_LOG(logCategory(), ko::log::debug, method)
      << domain << "/" << key << " = " << value.toDebugString();
}

void PreferenceManager::removeValue(const std::string& domain, const std::string& key) {
  const char* method = "removeValue";
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Statement remove(impl_->connection(method),
                   "DELETE FROM preferences WHERE domain = ?1 AND key = ?2", method);
  remove.bind(1, domain);
  remove.bind(2, key);
  remove.step();
}

ZR::ZRValue PreferenceManager::getValueList(const std::string& domain) {
  const char* method = "getValueList";
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Statement query(impl_->connection(method),
                  "SELECT key, value FROM preferences WHERE domain = ?1 ORDER BY key", method);
  query.bind(1, domain);
  ZR::ZRValue::Array pairs;
  while (query.step()) {
    std::string key = query.text(0);
    ZR::ZRValue value = decode(query.text(1), domain, key, method);
    pairs.push_back(ZR::ZRValue(ZR::ZRValue::Array{ZR::ZRValue(key), std::move(value)}));
  }
  return ZR::ZRValue(std::move(pairs));
}

std::vector<std::string> PreferenceManager::getDomainList() {
  const char* method = "getDomainList";
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Statement query(impl_->connection(method),
                  "SELECT DISTINCT domain FROM preferences ORDER BY domain", method);
  std::vector<std::string> domains;
  while (query.step()) domains.push_back(query.text(0));
  return domains;
}

void PreferenceManager::exit() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->close();
  }
  ZR::ZRModule::exit();
}

}  // namespace services
}  // namespace bexko
