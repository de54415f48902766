#include "platform/token_store/sqlite_connection.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/error.hpp"
#include "platform/os/file_descriptor.hpp"

namespace keyloft::platform::token_store::sqlite {
namespace {

constexpr int busyTimeoutMilliseconds = 10000;

void createPrivateFile(const std::filesystem::path& path) {
    const os::FileDescriptor fd(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd.isOpen() && errno != EEXIST) {
        throw PlatformError("Cannot create the token store " + path.string() + ": " +
                            std::strerror(errno));
    }
}

// SQLite's own words for it ("attempt to write a readonly database") do not say what to do, and
// the card is written even to be read: its write-ahead log and index live beside the store.
[[noreturn]] void failReadOnly(sqlite3* db) {
    const std::filesystem::path store = sqlite3_db_filename(db, "main");
    throw PlatformError("The card in " + store.parent_path().string() +
                        " is read-only: make the folder and the files in it writable by you");
}

bool refusedAsReadOnly(sqlite3* db) {
    return (sqlite3_errcode(db) & 0xff) == SQLITE_READONLY;
}

}  // namespace

void fail(sqlite3* db, std::string_view what) {
    if (refusedAsReadOnly(db)) failReadOnly(db);
    throw PlatformError("Token store: " + std::string(what) + ": " + sqlite3_errmsg(db));
}

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr) !=
        SQLITE_OK) {
        fail(db, "cannot prepare a query");
    }
    statement_.reset(raw);
}

Statement& Statement::bind(int index, std::string_view text) {
    if (sqlite3_bind_text(statement_.get(), index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        fail(db_, "cannot bind a value");
    }
    return *this;
}

Statement& Statement::bind(int index, ByteView blob) {
    // A zero-length blob with a null pointer would bind NULL; the columns are NOT NULL.
    static const std::uint8_t empty = 0;
    const void* data = blob.empty() ? &empty : blob.data();
    if (sqlite3_bind_blob(statement_.get(), index, data, static_cast<int>(blob.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        fail(db_, "cannot bind a value");
    }
    return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
    if (sqlite3_bind_int64(statement_.get(), index, value) != SQLITE_OK) {
        fail(db_, "cannot bind a value");
    }
    return *this;
}

Statement& Statement::bindOptional(int index, const std::optional<std::string>& text) {
    return text ? bind(index, std::string_view(*text)) : bindNull(index);
}

Statement& Statement::bindOptional(int index, const std::optional<bool>& flag) {
    return flag ? bind(index, static_cast<std::int64_t>(*flag ? 1 : 0)) : bindNull(index);
}

Statement& Statement::bindNull(int index) {
    if (sqlite3_bind_null(statement_.get(), index) != SQLITE_OK) fail(db_, "cannot bind a value");
    return *this;
}

void Statement::reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

bool Statement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    fail(db_, "query failed");
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::string Statement::text(int column) const {
    return std::string(textView(column));
}

Bytes Statement::blob(int column) const {
    const ByteView value = blobView(column);
    return Bytes(value.begin(), value.end());
}

std::string_view Statement::textView(int column) const {
    const auto* data = sqlite3_column_text(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return data == nullptr ? std::string_view()
                           : std::string_view(reinterpret_cast<const char*>(data), size);
}

ByteView Statement::blobView(int column) const {
    const auto* data =
        static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_.get(), column));
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return data == nullptr ? ByteView() : ByteView(data, static_cast<std::size_t>(size));
}

std::int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

Blob::Blob(sqlite3* db, const char* table, const char* column, std::int64_t row) : db_(db) {
    sqlite3_blob* raw = nullptr;
    const int result = sqlite3_blob_open(db, "main", table, column, row, 1, &raw);
    blob_.reset(raw);
    if (result != SQLITE_OK) fail(db, "cannot open a value for writing");
}

void Blob::write(std::size_t offset, ByteView bytes) {
    const auto size = static_cast<std::size_t>(sqlite3_blob_bytes(blob_.get()));
    if (offset > size || bytes.size() > size - offset)
        throw PlatformError("Token store: a change reaches past the end of the stored value");
    if (sqlite3_blob_write(blob_.get(), bytes.data(), static_cast<int>(bytes.size()),
                           static_cast<int>(offset)) != SQLITE_OK) {
        fail(db_, "cannot change a stored value");
    }
}

Connection::Connection(const std::filesystem::path& path) {
    createPrivateFile(path);
    sqlite3* raw = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    db_.reset(raw);
    if (result != SQLITE_OK) {
        throw PlatformError("Cannot open the token store " + path.string() + ": " +
                            (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(result)));
    }
    sqlite3_busy_timeout(db_.get(), busyTimeoutMilliseconds);
    execute("PRAGMA journal_mode=WAL");
    execute("PRAGMA foreign_keys=ON");
    // A change undone on failure keeps the pages it replaces in memory, not in a temporary file.
    execute("PRAGMA temp_store=MEMORY");
}

void Connection::execute(std::string_view sql) const {
    const std::string text(sql);
    char* message = nullptr;
    if (sqlite3_exec(db_.get(), text.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        std::string reason = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        if (refusedAsReadOnly(db_.get())) failReadOnly(db_.get());
        throw PlatformError("Token store: " + reason);
    }
}

void Connection::transaction(const std::function<void()>& work) const {
    if (sqlite3_get_autocommit(db_.get()) != 0) return runInTransaction("BEGIN IMMEDIATE", work);
    execute("SAVEPOINT change");
    try {
        work();
        execute("RELEASE change");
    } catch (...) {
        sqlite3_exec(db_.get(), "ROLLBACK TO change; RELEASE change", nullptr, nullptr, nullptr);
        throw;
    }
}

void Connection::writeCommittingEvenOnThrow(const std::function<void()>& work) const {
    if (sqlite3_exec(db_.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
        if (sqlite3_errcode(db_.get()) == SQLITE_BUSY) {
            throw PlatformError("The card is busy: another command kept it for more than " +
                                std::to_string(busyTimeoutMilliseconds / 1000) + " seconds");
        }
        fail(db_.get(), "cannot start a change");
    }
    try {
        work();
    } catch (...) {
        // Stores made before the failure stand, as they would had each been its own change.
        if (sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
            sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
    if (sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        if (refusedAsReadOnly(db_.get())) {
            sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
            failReadOnly(db_.get());
        }
        const std::string reason = sqlite3_errmsg(db_.get());
        sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw PlatformError("Token store: cannot store the change: " + reason);
    }
}

void Connection::readTransaction(const std::function<void()>& work) const {
    runInTransaction("BEGIN DEFERRED", work);
}

void Connection::runInTransaction(std::string_view begin, const std::function<void()>& work) const {
    execute(begin);
    try {
        work();
        execute("COMMIT");
    } catch (...) {
        sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

std::int64_t Connection::dataVersion() const {
    auto query = prepare("PRAGMA data_version");
    if (!query.step()) fail(db_.get(), "cannot read the data version");
    return query.integer(0);
}

}  // namespace keyloft::platform::token_store::sqlite
