#pragma once

#include <QCoroTask>
#include <QString>

#include <optional>

// The desktop's secret store (Secret Service over D-Bus, through QtKeychain): one item per key,
// holding the UTF-8 bytes of a text, under the program's service name. Failures never reach the
// caller: a failed save is logged, a failed read gives nothing. Holds no state, so one shared
// instance serves the whole process and a call may outlive it.
class KeychainHelper {
public:
    static inline const QString service = QStringLiteral("ravletai.ravlet");

    // Replaces any item under `key`; a failure is logged only, and the old value is gone by then.
    [[nodiscard]] QCoro::Task<> save(QString value, QString key) const;
    // Nothing, silently, when there is no such item.
    [[nodiscard]] QCoro::Task<std::optional<QString>> read(QString key) const;
    // Deletes the item under `key`; whether there was one, or the store answered, is ignored.
    [[nodiscard]] QCoro::Task<> remove(QString key) const;
};
