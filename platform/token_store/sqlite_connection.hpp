#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft::platform::token_store::sqlite {

// One prepared statement; columns and parameters are numbered as SQLite numbers them.
class Statement {
  public:
    Statement(sqlite3* db, std::string_view sql);

    Statement& bind(int index, std::string_view text);
    Statement& bind(int index, ByteView blob);
    Statement& bind(int index, std::int64_t value);
    Statement& bindOptional(int index, const std::optional<std::string>& text);
    Statement& bindOptional(int index, const std::optional<bool>& flag);
    Statement& bindNull(int index);

    // Makes the statement ready to run again with new parameters.
    void reset();

    // True while a row is available.
    bool step();
    void run() {
        while (step()) {
        }
    }

    bool isNull(int column) const;
    std::string text(int column) const;
    Bytes blob(int column) const;
    // The current row's value in place, valid until the next step or reset.
    std::string_view textView(int column) const;
    ByteView blobView(int column) const;
    std::int64_t integer(int column) const;

  private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    sqlite3* db_;
    std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

// One value of a row opened for writing in place; it keeps its length.
class Blob {
  public:
    Blob(sqlite3* db, const char* table, const char* column, std::int64_t row);

    // Throws PlatformError when the bytes reach past the value's end.
    void write(std::size_t offset, ByteView bytes);

  private:
    struct Closer {
        void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
    };
    sqlite3* db_;
    std::unique_ptr<sqlite3_blob, Closer> blob_;
};

class Connection {
  public:
    // Opens or creates the database file with mode 0600.
    explicit Connection(const std::filesystem::path& path);

    sqlite3* handle() const { return db_.get(); }
    Statement prepare(std::string_view sql) const { return Statement(db_.get(), sql); }
    Blob openBlob(const char* table, const char* column, std::int64_t row) const {
        return {db_.get(), table, column, row};
    }
    void execute(std::string_view sql) const;
    // Runs the work as one whole change, undone when the work throws: a write transaction of its
    // own, or a savepoint inside the write transaction already open.
    void transaction(const std::function<void()>& work) const;
    // Runs the work holding the database for writing: other writers wait (up to the busy
    // timeout, then PlatformError "busy") and readers keep seeing the state before it. What the
    // work changed before it threw is committed and the error passes on; a crash keeps nothing.
    void writeCommittingEvenOnThrow(const std::function<void()>& work) const;
    // Runs the work in one read transaction: every query in it sees the same committed state.
    void readTransaction(const std::function<void()>& work) const;
    // Changes whenever another connection commits to the database.
    std::int64_t dataVersion() const;

  private:
    void runInTransaction(std::string_view begin, const std::function<void()>& work) const;

    struct Closer {
        void operator()(sqlite3* db) const { sqlite3_close(db); }
    };
    std::unique_ptr<sqlite3, Closer> db_;
};

[[noreturn]] void fail(sqlite3* db, std::string_view what);

}  // namespace keyloft::platform::token_store::sqlite
