#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <ostream>

// Readable Qt values in GoogleTest messages and test names.
inline void PrintTo(const QString& value, std::ostream* os)
{
    *os << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QByteArray& value, std::ostream* os)
{
    *os << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QStringList& value, std::ostream* os)
{
    *os << '[' << value.join(QStringLiteral(", ")).toStdString() << ']';
}

// Parameter structs with a `name` field print as that name.
template<typename T>
requires requires(const T& t)
{
    t.name;
}
void PrintTo(const T& value, std::ostream* os)
{
    *os << value.name;
}
