#include "platform/linux/SqliteDefaultsSuite.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "platform/Crypto.hpp"

namespace vontu::platform::linux_host {

namespace {

using nlohmann::json;

// ---------------------------------------------------------------------------------------------
// Storage encoding
//
// Each value is stored as compact JSON text tagged with its type, so that every property-list
// type keeps its identity across a write and a read: an integer never comes back as a double,
// and a dictionary whose only key is "$date" stays a dictionary.
//
//   ["s", "text"]    string             ["t", SECONDS]        date, seconds since 1970
//   ["i", 42]        integer            ["d", "BASE64"]       data
//   ["r", 1.5]       double             ["a", [VALUE, ...]]   array of encoded values
//   ["b", true]      boolean            ["m", {"k": VALUE}]   dictionary of encoded values
//
// A double or date that is not finite carries "nan", "inf" or "-inf" in place of the number,
// since JSON has no such numbers. Strings must be UTF-8, as the JSON text is.
// ---------------------------------------------------------------------------------------------

// Deeper values are refused on write and read as absent, so that no value can exhaust the stack.
constexpr int maximumDepth = 512;

std::optional<json> encode(const PlistValue& value, int depth);

json encodeReal(double number) {
    if (std::isnan(number)) return "nan";
    if (std::isinf(number)) return number > 0 ? "inf" : "-inf";
    return number;
}

std::optional<json> encodeArray(const PlistArray& array, int depth) {
    json elements = json::array();
    for (const auto& element : array) {
        auto encoded = encode(element, depth + 1);
        if (!encoded) return std::nullopt;
        elements.push_back(std::move(*encoded));
    }
    return elements;
}

std::optional<json> encodeDictionary(const PlistDictionary& dictionary, int depth) {
    json members = json::object();
    for (const auto& [key, member] : dictionary) {
        auto encoded = encode(member, depth + 1);
        if (!encoded) return std::nullopt;
        members[key] = std::move(*encoded);
    }
    return members;
}

std::optional<json> encode(const PlistValue& value, int depth) {
    if (depth > maximumDepth) return std::nullopt;
    auto tagged = [](const char* tag, json payload) { return json::array({tag, std::move(payload)}); };
    return std::visit(
        [&](const auto& stored) -> std::optional<json> {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return tagged("s", stored);
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return tagged("i", stored);
            } else if constexpr (std::is_same_v<T, double>) {
                return tagged("r", encodeReal(stored));
            } else if constexpr (std::is_same_v<T, bool>) {
                return tagged("b", stored);
            } else if constexpr (std::is_same_v<T, Date>) {
                return tagged("t", encodeReal(stored.secondsSince1970));
            } else if constexpr (std::is_same_v<T, Bytes>) {
                return tagged("d", base64Encode(stored));
            } else if constexpr (std::is_same_v<T, PlistArray>) {
                auto elements = encodeArray(stored, depth);
                if (!elements) return std::nullopt;
                return tagged("a", std::move(*elements));
            } else {
                static_assert(std::is_same_v<T, PlistDictionary>);
                auto members = encodeDictionary(stored, depth);
                if (!members) return std::nullopt;
                return tagged("m", std::move(*members));
            }
        },
        value.value);
}

// The text stored for a value; absent when the value has no stored form (a string that is not
// UTF-8, or nesting beyond the limit).
std::optional<std::string> encodeToText(const PlistValue& value) {
    auto encoded = encode(value, 0);
    if (!encoded) return std::nullopt;
    try {
        return encoded->dump();
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

std::optional<PlistValue> decode(const json& stored, int depth);

std::optional<double> decodeReal(const json& payload) {
    if (payload.is_number()) return payload.get<double>();
    if (!payload.is_string()) return std::nullopt;
    const auto& text = payload.get_ref<const std::string&>();
    if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
    if (text == "inf") return std::numeric_limits<double>::infinity();
    if (text == "-inf") return -std::numeric_limits<double>::infinity();
    return std::nullopt;
}

std::optional<std::int64_t> decodeInteger(const json& payload) {
    if (payload.is_number_integer() && !payload.is_number_unsigned()) {
        return payload.get<std::int64_t>();
    }
    if (payload.is_number_unsigned()) {
        const auto number = payload.get<std::uint64_t>();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(number);
    }
    return std::nullopt;
}

std::optional<PlistValue> decodeArray(const json& payload, int depth) {
    if (!payload.is_array()) return std::nullopt;
    PlistArray elements;
    elements.reserve(payload.size());
    for (const auto& element : payload) {
        auto decoded = decode(element, depth + 1);
        if (!decoded) return std::nullopt;
        elements.push_back(std::move(*decoded));
    }
    return PlistValue(std::move(elements));
}

std::optional<PlistValue> decodeDictionary(const json& payload, int depth) {
    if (!payload.is_object()) return std::nullopt;
    PlistDictionary members;
    for (const auto& [key, member] : payload.items()) {
        auto decoded = decode(member, depth + 1);
        if (!decoded) return std::nullopt;
        members.emplace(key, std::move(*decoded));
    }
    return PlistValue(std::move(members));
}

std::optional<PlistValue> decode(const json& stored, int depth) {
    if (depth > maximumDepth) return std::nullopt;
    if (!stored.is_array() || stored.size() != 2 || !stored[0].is_string()) return std::nullopt;
    const auto& tag = stored[0].get_ref<const std::string&>();
    const auto& payload = stored[1];
    if (tag == "s" && payload.is_string()) return PlistValue(payload.get<std::string>());
    if (tag == "b" && payload.is_boolean()) return PlistValue(payload.get<bool>());
    if (tag == "i") {
        if (auto number = decodeInteger(payload)) return PlistValue(*number);
        return std::nullopt;
    }
    if (tag == "r") {
        if (auto number = decodeReal(payload)) return PlistValue(*number);
        return std::nullopt;
    }
    if (tag == "t") {
        if (auto seconds = decodeReal(payload)) return PlistValue(Date{*seconds});
        return std::nullopt;
    }
    if (tag == "d" && payload.is_string()) {
        if (auto bytes = base64Decode(payload.get_ref<const std::string&>())) {
            return PlistValue(std::move(*bytes));
        }
        return std::nullopt;
    }
    if (tag == "a") return decodeArray(payload, depth);
    if (tag == "m") return decodeDictionary(payload, depth);
    return std::nullopt;
}

// The value stored as this text; absent when the text is not a stored value.
std::optional<PlistValue> decodeFromText(std::string_view text) {
    const auto parsed = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return decode(parsed, 0);
}

// ---------------------------------------------------------------------------------------------
// The database
// ---------------------------------------------------------------------------------------------

// Writers of several processes queue for the database's single write lock; a write lasts
// milliseconds, so a call waits this long before it gives up.
constexpr int busyTimeoutMilliseconds = 5000;

constexpr const char* createTableSql =
    "CREATE TABLE IF NOT EXISTS defaults (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL)";
constexpr const char* selectSql = "SELECT value FROM defaults WHERE key = ?1";
constexpr const char* selectAllSql = "SELECT key, value FROM defaults";
constexpr const char* upsertSql = "INSERT OR REPLACE INTO defaults (key, value) VALUES (?1, ?2)";
constexpr const char* deleteSql = "DELETE FROM defaults WHERE key = ?1";

struct CloseConnection {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Resets a statement when the call is done with it, so that no statement keeps a read
// transaction open (which would hold back other processes' checkpoints) or refers to a
// bound buffer that is gone.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementUse() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

    bool bindText(int index, std::string_view text) {
        // No destructor: the text outlives the statement's use (this object).
        return sqlite3_bind_text64(statement_, index, text.data(), text.size(), nullptr,
                                   SQLITE_UTF8) == SQLITE_OK;
    }
    int step() { return sqlite3_step(statement_); }
    std::optional<std::string_view> columnText(int column) {
        const auto* text = sqlite3_column_text(statement_, column);
        if (text == nullptr) return std::nullopt;
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
        return std::string_view(reinterpret_cast<const char*>(text), size);
    }

private:
    sqlite3_stmt* statement_;
};

// One defaults suite over one open connection. Every call is a single statement run in
// autocommit mode, hence one transaction; the mutex serialises this object's callers on the
// connection, and SQLite's file locks serialise processes.
class SqliteDefaultsSuite final : public DefaultsSuite {
public:
    explicit SqliteDefaultsSuite(Connection db) : db_(std::move(db)) {}

    std::optional<PlistValue> objectForKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        auto* statement = prepared(select_, selectSql);
        if (statement == nullptr) return std::nullopt;
        StatementUse use(statement);
        if (!use.bindText(1, key) || use.step() != SQLITE_ROW) return std::nullopt;
        const auto text = use.columnText(0);
        if (!text) return std::nullopt;
        return decodeFromText(*text);
    }

    bool setObject(const PlistValue& value, const std::string& key) override {
        const auto text = encodeToText(value);
        if (!text) return false;
        std::lock_guard lock(mutex_);
        auto* statement = prepared(upsert_, upsertSql);
        if (statement == nullptr) return false;
        StatementUse use(statement);
        return use.bindText(1, key) && use.bindText(2, *text) && use.step() == SQLITE_DONE;
    }

    bool removeObject(const std::string& key) override {
        std::lock_guard lock(mutex_);
        auto* statement = prepared(delete_, deleteSql);
        if (statement == nullptr) return false;
        StatementUse use(statement);
        return use.bindText(1, key) && use.step() == SQLITE_DONE;
    }

    // BEGIN IMMEDIATE takes the database's write lock before the read, waiting for other
    // writers as a single write does, so nothing can come between the read and the write.
    bool updateObject(const std::string& key, const Change& change) override {
        std::lock_guard lock(mutex_);
        if (sqlite3_exec(db_.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            return false;
        }
        const bool done = applyUpdate(key, change) &&
                          sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
        if (!done) sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        return done;
    }

    // Rows that cannot be read are left out; a suite that cannot be read gives nothing.
    PlistDictionary dictionaryRepresentation() override {
        std::lock_guard lock(mutex_);
        auto* statement = prepared(selectAll_, selectAllSql);
        if (statement == nullptr) return {};
        StatementUse use(statement);
        PlistDictionary entries;
        for (;;) {
            const int status = use.step();
            if (status == SQLITE_DONE) return entries;
            if (status != SQLITE_ROW) return {};
            const auto key = use.columnText(0);
            const auto text = use.columnText(1);
            if (!key || !text) continue;
            if (auto value = decodeFromText(*text)) entries.emplace(*key, std::move(*value));
        }
    }

private:
    // The read, change and write of updateObject, inside its transaction.
    bool applyUpdate(const std::string& key, const Change& change) {
        std::optional<PlistValue> current;
        {
            auto* statement = prepared(select_, selectSql);
            if (statement == nullptr) return false;
            StatementUse use(statement);
            if (!use.bindText(1, key)) return false;
            const int status = use.step();
            if (status == SQLITE_ROW) {
                if (const auto text = use.columnText(0)) current = decodeFromText(*text);
            } else if (status != SQLITE_DONE) {
                return false;
            }
        }
        const Update update = change(current);
        switch (update.action) {
            case Update::Action::keep: return true;
            case Update::Action::remove: {
                auto* statement = prepared(delete_, deleteSql);
                if (statement == nullptr) return false;
                StatementUse use(statement);
                return use.bindText(1, key) && use.step() == SQLITE_DONE;
            }
            case Update::Action::store: {
                const auto text = encodeToText(update.value);
                auto* statement = text ? prepared(upsert_, upsertSql) : nullptr;
                if (statement == nullptr) return false;
                StatementUse use(statement);
                return use.bindText(1, key) && use.bindText(2, *text) && use.step() == SQLITE_DONE;
            }
        }
        return false;
    }

    // Statements are prepared on first use, so that a process that reads one key prepares one.
    sqlite3_stmt* prepared(Statement& slot, const char* sql) {
        if (!slot) {
            sqlite3_stmt* statement = nullptr;
            if (sqlite3_prepare_v3(db_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                                   nullptr) != SQLITE_OK) {
                sqlite3_finalize(statement);
                return nullptr;
            }
            slot.reset(statement);
        }
        return slot.get();
    }

    std::mutex mutex_;
    // Declared before its statements, so that they are finalised before it is closed.
    Connection db_;
    Statement select_;
    Statement selectAll_;
    Statement upsert_;
    Statement delete_;
};

// SQLite gives new database files the default mode; creating the file first, owner-only, gives
// it 0600 without touching the process-wide umask, and SQLite gives its -wal and -shm files the
// database file's mode. An existing file is left as it is.
void createOwnerOnlyFile(const std::filesystem::path& file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) ::close(fd);
}

}  // namespace

std::shared_ptr<DefaultsSuite> openSqliteDefaultsSuite(const std::filesystem::path& file) {
    createOwnerOnlyFile(file);
    sqlite3* opened = nullptr;
    // A file that is write-protected opens read-only: it can still be read, and writes fail.
    const int status = sqlite3_open_v2(file.c_str(), &opened,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                           SQLITE_OPEN_NOMUTEX,
                                       nullptr);
    Connection db(opened);  // a failed open still hands back a handle to close
    if (status != SQLITE_OK) return nullptr;
    sqlite3_busy_timeout(db.get(), busyTimeoutMilliseconds);
    // WAL lets readers go on while one process writes. The mode is stored in the file, so this
    // changes something only once; where it cannot be set (a read-only file in another mode)
    // the suite still works in the mode it has.
    sqlite3_exec(db.get(), "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    // In WAL mode NORMAL still keeps every commit atomic and safe from a crashed process; it
    // only leaves the last commits to the operating system's write-back, as the system's own
    // defaults do, instead of waiting for the disk on each write.
    sqlite3_exec(db.get(), "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    // Extension processes are short: folding the log back into the database at every close
    // would cost each of them a checkpoint and its disk flushes. SQLite still checkpoints
    // once the log grows past its threshold.
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (sqlite3_exec(db.get(), createTableSql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        return nullptr;
    }
    return std::make_shared<SqliteDefaultsSuite>(std::move(db));
}

}  // namespace vontu::platform::linux_host
