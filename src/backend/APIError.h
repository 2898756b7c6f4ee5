#pragma once

#include <QNetworkReply>
#include <QString>

#include <stdexcept>

// The backend client's own failures. description() is the text shown to the user.
class APIError : public std::exception {
public:
    enum class Kind { serverError, networkError, unauthorized, decodingError };

    static APIError serverError(int status) { return APIError(Kind::serverError, status); }
    static APIError networkError() { return APIError(Kind::networkError); }
    static APIError unauthorized() { return APIError(Kind::unauthorized); }
    static APIError decodingError() { return APIError(Kind::decodingError); }

    Kind kind() const { return m_kind; }
    // The HTTP status of a serverError, 0 otherwise.
    int status() const { return m_status; }
    QString description() const;
    const char* what() const noexcept override { return m_what.c_str(); }

    friend bool operator==(const APIError& a, const APIError& b)
    {
        return a.m_kind == b.m_kind && a.m_status == b.m_status;
    }

private:
    explicit APIError(Kind kind, int status = 0);

    Kind m_kind;
    int m_status;
    std::string m_what;
};

// A failure whose text is shown to the user as it stands.
class DescribedError : public std::runtime_error {
public:
    explicit DescribedError(const QString& description)
        : std::runtime_error(description.toStdString()), m_description(description)
    {
    }
    QString description() const { return m_description; }

private:
    QString m_description;
};

// A request that never got an answer from the server (refused, timed out, cut off). It reaches
// callers unwrapped, with the network stack's own description.
class TransportError : public DescribedError {
public:
    TransportError(QNetworkReply::NetworkError code, const QString& description)
        : DescribedError(description), m_code(code)
    {
    }
    QNetworkReply::NetworkError code() const { return m_code; }

private:
    QNetworkReply::NetworkError m_code;
};

// The backend's refusal of a speech token, in the vendor's own words.
class SpeechTokenError : public DescribedError {
public:
    using DescribedError::DescribedError;
};

// A local file that could not be read; nothing was sent.
class FileReadError : public DescribedError {
public:
    using DescribedError::DescribedError;
};
