#pragma once

#include <QNetworkReply>

#include <array>
#include <coroutine>
#include <utility>

// Suspends until the reply reports anything: headers, more body, or its end. Callers loop,
// testing the reply's state after each wake.
class ReplyActivity {
public:
    explicit ReplyActivity(QNetworkReply* reply) : m_reply(reply) {}
    // Moved only before it suspends.
    ReplyActivity(ReplyActivity&&) noexcept = default;
    ReplyActivity& operator=(const ReplyActivity&) = delete;
    ~ReplyActivity() { disconnectAll(); }

    bool await_ready() const noexcept { return m_reply->isFinished(); }
    void await_suspend(std::coroutine_handle<> handle)
    {
        m_handle = handle;
        const auto wake = [this] {
            disconnectAll();
            if (m_handle)
                std::exchange(m_handle, {}).resume();
        };
        m_connections = {
            QObject::connect(m_reply, &QNetworkReply::metaDataChanged, m_reply, wake),
            QObject::connect(m_reply, &QIODevice::readyRead, m_reply, wake),
            QObject::connect(m_reply, &QNetworkReply::finished, m_reply, wake),
        };
    }
    void await_resume() const noexcept {}

private:
    void disconnectAll()
    {
        for (auto& connection : m_connections)
            QObject::disconnect(connection);
    }

    QNetworkReply* m_reply;
    std::coroutine_handle<> m_handle;
    std::array<QMetaObject::Connection, 3> m_connections;
};
