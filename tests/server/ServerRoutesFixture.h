#pragma once

// A whole server per test and short ways to call its JSON routes, for the route suites.

#include "ServerHarness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

inline QJsonObject json(const CurlResult& result)
{
    return QJsonDocument::fromJson(result.body).object();
}

inline QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

class ServerRoutesFixture : public ::testing::Test {
protected:
    using Account = ServerHarness::Account;

    int status(const Account& account, const QString& method, const QString& path,
               const QByteArray& body = {})
    {
        return server.call(account, method, path, body).status;
    }
    QJsonObject get(const Account& account, const QString& path)
    {
        return json(server.call(account, QStringLiteral("GET"), path));
    }
    QJsonObject post(const Account& account, const QString& path, const QByteArray& body)
    {
        return json(server.call(account, QStringLiteral("POST"), path, body));
    }
    // The "id" of what a POST created; empty when it was refused.
    QString create(const Account& account, const QString& path, const QByteArray& body)
    {
        return post(account, path, body).value(QStringLiteral("id")).toString();
    }

    ServerHarness server;
};
