#pragma once

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "FakeBackend.h"
#include "NotificationCenter.h"
#include "AwaitTask.h"
#include "QtPrinters.h"

#include <QCoroTask>

#include <gtest/gtest.h>

// Runs `expression` (a task) to its end and checks that it fails with `expected` (an APIError).
#define EXPECT_API_ERROR(expression, expected)                                                     \
    do {                                                                                           \
        try {                                                                                      \
            awaitTask(expression);                                                            \
            ADD_FAILURE() << "no error, expected " << (expected).what();                           \
        } catch (const APIError& error) {                                                          \
            EXPECT_EQ(error, expected) << error.what() << " instead of " << (expected).what();     \
        } catch (const std::exception& error) {                                                   \
            ADD_FAILURE() << "other error: " << error.what() << ", expected " << (expected).what(); \
        }                                                                                          \
    } while (false)

// A client against a FakeBackend, with an in-memory token store and its own notification bus.
class BackendTest : public ::testing::Test {
protected:
    BackendTest()
    {
        notifications.addObserver(Notifications::apiRequestFailed, nullptr,
                                  [this](const Notification& n) { failures.append(n.userInfo); });
    }

    void storeTokens(const QString& access, const QString& refresh)
    {
        awaitTask(tokens.saveTokens(access, refresh));
        client.setAccessToken(access);
    }

    static FakeBackend::Response refreshed(const QByteArray& access, const QByteArray& refresh)
    {
        return FakeBackend::Response::json(
            200, R"({"accessToken":")" + access + R"(","refreshToken":")" + refresh + R"("})");
    }

    FakeBackend server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.origin(), tokens, notifications};
    QList<QVariantMap> failures;
};
