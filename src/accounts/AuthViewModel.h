#pragma once

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QString>

#include <optional>

class APIClient;
class AuthTokenStore;
class TelemetryClient;

// The sign-in state the screens observe, and the three things that change it: the exchange
// of a browser sign-in's code, the restore of a stored session at launch, and sign-out. All of
// it runs on the main thread; isLoading is the only guard.
class AuthViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isLoggedIn READ isLoggedIn NOTIFY isLoggedInChanged)
    Q_PROPERTY(bool hasCurrentUser READ hasCurrentUser NOTIFY currentUserChanged)
    Q_PROPERTY(QString userId READ userId NOTIFY currentUserChanged)
    Q_PROPERTY(QString userEmail READ userEmail NOTIFY currentUserChanged)
    Q_PROPERTY(QString displayName READ displayName NOTIFY currentUserChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY isLoadingChanged)
    Q_PROPERTY(QString error READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QString pendingVerificationEmail READ pendingVerificationEmailText WRITE
                   setPendingVerificationEmailText NOTIFY pendingVerificationEmailChanged)
    Q_PROPERTY(QString email MEMBER m_email NOTIFY emailChanged)
    Q_PROPERTY(QString password MEMBER m_password NOTIFY passwordChanged)
    Q_PROPERTY(bool isRegisterMode MEMBER m_isRegisterMode NOTIFY isRegisterModeChanged)

public:
    struct UserProfile {
        QString id;
        QString email;
        std::optional<QString> displayName;
        friend bool operator==(const UserProfile&, const UserProfile&) = default;
    };

    static inline const QString clientNotConfigured = QStringLiteral("API client not configured");

    // `tokens` must outlive the model.
    explicit AuthViewModel(AuthTokenStore& tokens, QObject* parent = nullptr);

    // The construction's read of the stored refresh token: the store answers over D-Bus, so
    // this part suspends. A stored refresh token makes the user signed in at once, before
    // anything has been validated, so that the shell can tell a returning user at launch.
    QCoro::Task<> loadStoredTokens();

    void setApiClient(APIClient* client);
    APIClient* apiClient() const;
    void setTelemetry(TelemetryClient* telemetry);

    QCoro::Task<> exchangeCode(QString code);
    QCoro::Task<> restoreSession();
    void logout();

    // The profile carried in an access token's payload; nothing in it is verified.
    static std::optional<UserProfile> decodeProfile(const QString& accessToken);

    bool isLoggedIn() const { return m_isLoggedIn; }
    const std::optional<UserProfile>& currentUser() const { return m_currentUser; }
    bool isLoading() const { return m_isLoading; }
    const std::optional<QString>& error() const { return m_error; }
    const std::optional<QString>& pendingVerificationEmail() const { return m_pendingVerificationEmail; }

Q_SIGNALS:
    void isLoggedInChanged();
    void currentUserChanged();
    void isLoadingChanged();
    void errorChanged();
    void pendingVerificationEmailChanged();
    void emailChanged();
    void passwordChanged();
    void isRegisterModeChanged();

private:
    void setLoggedIn(bool loggedIn);
    void setCurrentUser(std::optional<UserProfile> user);
    void setLoading(bool loading);
    void setError(std::optional<QString> error);

    bool hasCurrentUser() const { return m_currentUser.has_value(); }
    QString userId() const { return m_currentUser ? m_currentUser->id : QString(); }
    QString userEmail() const { return m_currentUser ? m_currentUser->email : QString(); }
    QString displayName() const { return m_currentUser ? m_currentUser->displayName.value_or(QString()) : QString(); }
    QString errorText() const { return m_error.value_or(QString()); }
    QString pendingVerificationEmailText() const { return m_pendingVerificationEmail.value_or(QString()); }
    void setPendingVerificationEmailText(const QString& email);

    bool m_isLoggedIn = false;
    std::optional<UserProfile> m_currentUser;
    bool m_isLoading = false;
    std::optional<QString> m_error;
    // Plain state of the sign-in form: account creation and verification happen on the web
    // page, so nothing here reads them.
    std::optional<QString> m_pendingVerificationEmail;
    QString m_email;
    QString m_password;
    bool m_isRegisterMode = false;
    AuthTokenStore& m_authService;
    QPointer<APIClient> m_apiClient;
    QPointer<TelemetryClient> m_telemetry;
};
