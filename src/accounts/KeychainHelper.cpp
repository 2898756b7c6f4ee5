#include "KeychainHelper.h"

#include "Log.h"

#include <QCoroSignal>
#include <QPointer>
#include <QStringDecoder>

#include <qt6keychain/keychain.h>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Generous: the first call may have to start the keyring daemon through D-Bus activation. A
// service that stays silent longer must not hold up the caller.
constexpr auto jobTimeout = 10s;

struct Outcome {
    QKeychain::Error error = QKeychain::OtherError; // also a job that never finished
    QByteArray data;
};

// Starts `job` and waits for it. The job deletes itself once finished (QtKeychain's auto-delete,
// a deferred delete posted after the finished signal), so its outcome is taken right after the
// wake-up. A job still running at the time-out counts as failed; it deletes itself whenever it
// ends, since QtKeychain's pending callbacks point at it.
QCoro::Task<Outcome> run(QKeychain::Job* job, QString key)
{
    job->setKey(key);
    job->setAutoDelete(true);
    // Never let QtKeychain put a token into a plain settings file when no secret store answers.
    job->setInsecureFallback(false);

    const QPointer<QKeychain::Job> alive(job);
    job->start();
    const auto finished = co_await qCoro(job, &QKeychain::Job::finished, jobTimeout);
    if (!finished || !alive)
        co_return Outcome{};

    Outcome outcome{alive->error(), {}};
    if (const auto* readJob = qobject_cast<const QKeychain::ReadPasswordJob*>(alive.data()))
        outcome.data = readJob->binaryData();
    co_return outcome;
}

// QtKeychain has no numeric store status: the value of its error enum stands in for it.
QString status(QKeychain::Error error)
{
    return QString::number(static_cast<int>(error));
}

} // namespace

QCoro::Task<> KeychainHelper::save(QString value, QString key) const
{
    // Delete first, so that a save replaces whatever is there: the store updates only an item of
    // exactly the same form, and one that QtKeychain keeps as text would survive and win reads.
    co_await remove(key);

    auto* job = new QKeychain::WritePasswordJob(service);
    job->setBinaryData(value.toUtf8());
    const auto outcome = co_await run(job, key);
    if (outcome.error != QKeychain::NoError)
        logLine(u"Keychain", u"save failed for "_s + key + u": "_s + status(outcome.error));
}

QCoro::Task<std::optional<QString>> KeychainHelper::read(QString key) const
{
    const auto outcome = co_await run(new QKeychain::ReadPasswordJob(service), key);
    if (outcome.error == QKeychain::EntryNotFound)
        co_return std::nullopt;
    if (outcome.error != QKeychain::NoError) {
        logLine(u"Keychain", u"read failed for "_s + key + u": "_s + status(outcome.error));
        co_return std::nullopt;
    }

    // Stateless, so that a truncated sequence at the end counts as an error too; a leading BOM
    // is part of the stored text, not a marker to drop.
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless
                                                       | QStringConverter::Flag::ConvertInitialBom);
    QString text = decoder.decode(outcome.data);
    if (decoder.hasError())
        co_return std::nullopt;
    co_return text;
}

QCoro::Task<> KeychainHelper::remove(QString key) const
{
    co_await run(new QKeychain::DeletePasswordJob(service), std::move(key));
}
