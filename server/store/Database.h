#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariantList>

#include <memory>
#include <stdexcept>

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

// One connection to SQLite (a file) or PostgreSQL (a postgresql:// address), with the schema
// brought up to date at open. Used on the thread that opened it only, as QtSql requires.
class Database {
public:
    enum class Driver { sqlite, postgresql };

    // Throws StoreError when the database cannot be opened or migrated.
    static std::unique_ptr<Database> open(const QString& location);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    Driver driver() const { return m_driver; }
    int schemaVersion() const { return m_schemaVersion; }

    // Prepares, binds in order and runs one statement; throws StoreError on failure.
    QSqlQuery run(const QString& sql, const QVariantList& values = {});

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
    void migrate();

    Driver m_driver;
    QString m_connectionName;
    int m_schemaVersion = 0;
};
