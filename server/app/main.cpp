#include "Api.h"
#include "Clock.h"
#include "HttpServer.h"
#include "ServerAnswerEngine.h"
#include "ServerOptions.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcessEnvironment>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onTerminate(int)
{
    const char byte = 1;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop, so the database closes cleanly.
void quitOnSignals()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return;
    auto* notifier =
        new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    struct sigaction action {};
    action.sa_handler = onTerminate;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

// The operator's way to make accounts when the sign-in page may not (--no-sign-up). The
// password comes from standard input, never from the command line where others can see it.
int createUser(AccountService& accounts, const QString& email)
{
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly)) {
        std::fprintf(stderr, "ravlet-server: cannot read the password from standard input\n");
        return 1;
    }
    auto line = input.readLine(4096);
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    const auto created = accounts.createAccount(email, QString::fromUtf8(line));
    if (const auto* refusal = std::get_if<QString>(&created)) {
        std::fprintf(stderr, "ravlet-server: %s\n", qPrintable(*refusal));
        return 1;
    }
    std::fprintf(stderr, "ravlet-server: created the account %s\n",
                 qPrintable(std::get<UserRecord>(created).email));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    // Everything this server writes (database, key, logs of SQLite) is for its own user.
    ::umask(077);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ravlet-server"));

    const auto parsed = ServerOptions::parse(
        app.arguments(), QProcessEnvironment::systemEnvironment().toStringList());
    if (const auto* help = std::get_if<ServerOptions::Help>(&parsed)) {
        std::fputs(qPrintable(help->text), stdout);
        return 0;
    }
    if (const auto* error = std::get_if<QString>(&parsed)) {
        std::fprintf(stderr, "ravlet-server: %s\n", qPrintable(*error));
        return 2;
    }
    const auto& options = std::get<ServerOptions>(parsed);

    const auto key = loadOrCreateSigningKey(options.signingKeyFile);
    if (const auto* error = std::get_if<QString>(&key)) {
        std::fprintf(stderr, "ravlet-server: %s\n", qPrintable(*error));
        return 1;
    }
    SystemClock clock;
    std::unique_ptr<Database> database;
    try {
        database = Database::open(options.database, &clock);
    } catch (const StoreError& error) {
        std::fprintf(stderr, "ravlet-server: %s\n", error.what());
        return 1;
    }

    AccountService accounts(*database, clock, std::get<QByteArray>(key));
    if (!options.createUser.isEmpty())
        return createUser(accounts, options.createUser);
    const auto engine = answerEngineFor(options);
    Api api(*database, accounts, clock, options.config, engine.get());
    HttpServer server(clock);
    server.setLimits(options.httpLimits);
    api.attach(server);
    const auto port = server.listen(options.address, options.port);
    if (!port) {
        std::fprintf(stderr, "ravlet-server: cannot listen on %s:%u\n",
                     qPrintable(options.address.toString()), unsigned(options.port));
        return 1;
    }
    quitOnSignals();
    std::fprintf(stderr, "ravlet-server: listening on http://%s:%u (schema version %d, %s)\n",
                 qPrintable(options.address.toString()), unsigned(*port), database->schemaVersion(),
                 database->driver() == Database::Driver::sqlite ? "SQLite" : "PostgreSQL");
    return app.exec();
}
