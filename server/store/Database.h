#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariantList>

#include <memory>
#include <optional>
#include <stdexcept>

class Clock;

// A failed query or connection. Routes turn it into a 500 without details.
class StoreError : public std::runtime_error {
public:
    explicit StoreError(const QString& message)
        : std::runtime_error(message.toStdString())
    {
    }
};

// Creates `path` and its missing parents readable by the owner only (0700); an existing
// folder is left as it is. False when a part could not be made.
bool makePrivateDirectory(const QString& path);

// The rows of one statement. value() gives text back exactly as it was bound, NULs included,
// whatever the database can store.
class Rows : public QSqlQuery {
public:
    Rows(QSqlQuery query, bool escapedText)
        : QSqlQuery(std::move(query))
        , m_escapedText(escapedText)
    {
    }
    QVariant value(int index) const;

private:
    bool m_escapedText;
};

// One connection to SQLite (a file) or PostgreSQL (a postgresql:// address), with the schema
// brought up to date at open. Used on the thread that opened it only, as QtSql requires.
class Database {
public:
    enum class Driver { sqlite, postgresql };

    // Throws StoreError when the database cannot be opened or migrated. `clock` paces the
    // reconnection to a PostgreSQL server that went away (none: every statement may try).
    static std::unique_ptr<Database> open(const QString& location, Clock* clock = nullptr);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    Driver driver() const { return m_driver; }
    int schemaVersion() const { return m_schemaVersion; }

    // Whether a statement may run a second time after its connection was lost, when it is not
    // known whether the first run reached the database. Reads always may.
    enum class Retry { never, once };

    // Prepares, binds in order and runs one statement; throws StoreError on failure. A lost
    // PostgreSQL connection is opened again (with back-off) and, outside a transaction, a
    // retryable statement runs once more on the new one.
    Rows run(const QString& sql, const QVariantList& values = {}, Retry retry = Retry::never);

    // A `SELECT 1` with a short time-out, reconnecting if needed: nothing when the database
    // answers, else why not (for logs; its text may name the host).
    std::optional<QString> check();

    // Statements between its start and commit() take effect together or not at all: it rolls
    // back when it ends uncommitted (an exception, an early return).
    class Transaction {
    public:
        explicit Transaction(Database& db);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        void commit();

    private:
        Database& m_db;
        bool m_open = true;
    };

private:
    Database(Driver driver, QString connectionName);
    // A statement without values, not prepared: PostgreSQL prepares no schema statements.
    void execute(const QString& sql);
    QSqlQuery attempt(const QString& sql, const QVariantList& values);
    // After a failure: false when the connection itself is gone (a restarted or failed-over
    // server), which is then opened again on the next statement.
    bool connectionAlive();
    // Opens a lost connection again, unless the back-off says not yet; throws StoreError then.
    void reconnectIfLost();
    void beginTransaction();
    void migrate();

    Driver m_driver;
    QString m_connectionName;
    int m_schemaVersion = 0;
    Clock* m_clock = nullptr;
    bool m_lost = false;
    bool m_inTransaction = false;
    qint64 m_backoffMs = 0;
    qint64 m_nextAttemptMs = 0;
};
