#pragma once

#include "HttpServer.h"
#include "ServerConfig.h"

#include <QHostAddress>
#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

// The command line, with an environment variable for each option. Secrets (the API keys of
// the model and the speech vendors, the signing key) come from files or the environment only,
// never from the command line.
struct ServerOptions {
    QHostAddress address = QHostAddress::LocalHost;
    quint16 port = 8787;
    QString database; // a file path or a postgresql:// address
    QString llmBaseUrl;
    QString llmModel;
    QString llmApiKey; // read from --llm-api-key-file or RAVLET_LLM_API_KEY
    QString signingKeyFile;
    // Set: create this account (its password read from standard input) and exit.
    QString createUser;
    ServerConfig config;
    HttpLimits httpLimits;

    struct Help {
        QString text;
    };
    // The options, the help text (for --help), or an error message.
    static std::variant<ServerOptions, Help, QString> parse(const QStringList& arguments,
                                                            const QStringList& environment);
};

// The key that signs tokens: 32 random bytes kept in a file readable only by its owner,
// created on first start. Every server of one installation must share it.
std::variant<QByteArray, QString> loadOrCreateSigningKey(const QString& path);
