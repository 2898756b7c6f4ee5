// Rewrites the preferences file as fast as it can until it is killed, so that a test can kill
// it at arbitrary moments of a write.
#include "PreferencesStore.h"

#include <QCoreApplication>
#include <QString>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    JsonPreferencesStore store(QString::fromLocal8Bit(argv[1]));
    const QString filler(20'000, QLatin1Char('x'));
    // The payload first: a file that has a counter has had a payload saved whole before it.
    for (qint64 i = 0;; ++i) {
        store.setString(QStringLiteral("payload"), filler + QString::number(i));
        store.setInteger(QStringLiteral("counter"), i);
    }
}
