#include "SpeechTokens.h"

#include "AccountService.h"
#include "Api.h"
#include "HttpServer.h"
#include "Stores.h"

#include <QHash>
#include <QUrl>

#ifdef RAVLET_OFFLINE_SPEECH
#include "ListenChannel.h"
#include "OfflineRecognizer.h"
#endif

using namespace Qt::StringLiterals;

namespace {

// "auto" counts as English: the program sends "au" for it, which the recogniser takes as
// English; an input language the program never stored is English too.
bool isEnglish(const QString& languageCode)
{
    const auto two = languageCode.left(2).toLower();
    return two.isEmpty() || two == u"en"_s || two == u"au"_s;
}

// The names of the program's language picker; a code it does not list is named as it came.
QString languageName(const QString& languageCode)
{
    static const QHash<QString, QString> names{
        {u"es"_s, u"Spanish"_s},  {u"fr"_s, u"French"_s},
        {u"de"_s, u"German"_s},   {u"zh"_s, u"Chinese (Simplified)"_s},
        {u"ja"_s, u"Japanese"_s}, {u"ko"_s, u"Korean"_s},
    };
    return names.value(languageCode.left(2).toLower(), languageCode);
}

} // namespace

SpeechTokens::SpeechTokens(AccountService& accounts, InterviewStore& interviews,
                           const ServerConfig& config, Clock& clock)
    : m_accounts(accounts)
    , m_interviews(interviews)
    , m_config(config)
    , m_clock(clock)
    , m_usesBuiltIn(!config.speechEndpoint && config.offlineSpeech
                    && isBuiltInRecognizerInstalled())
{
}

bool SpeechTokens::isBuiltInRecognizerInstalled()
{
#ifdef RAVLET_OFFLINE_SPEECH
    return OfflineRecognizer::isModelInstalled();
#else
    return false;
#endif
}

std::optional<QString> SpeechTokens::provider() const
{
    if (m_config.speechEndpoint || m_usesBuiltIn)
        return u"deepgram"_s;
    return std::nullopt;
}

HttpResponse SpeechTokens::token(const HttpRequest& request, const QString& userId) const
{
    const auto granted = [&](const QString& endpoint) {
        return jsonResponse(200, {{u"provider"_s, u"deepgram"_s},
                                  {u"token"_s, m_accounts.issueSpeechToken(userId)},
                                  {u"endpoint"_s, endpoint}});
    };
    if (m_config.speechEndpoint)
        return granted(*m_config.speechEndpoint);
    if (!m_usesBuiltIn)
        return HttpResponse::error(503, u"Speech recognition is not set up on this server: start "
                                        u"ravlet-server with --speech-endpoint"_s);
    // The program opens its interview session just before it asks for the token, with the
    // input language it will speak.
    const auto sessions = m_interviews.sessions(userId);
    if (!sessions.isEmpty() && sessions.first().value(u"status"_s).toString() == u"active"_s) {
        const auto language = sessions.first().value(u"languageInput"_s).toString();
        if (!isEnglish(language))
            return HttpResponse::error(
                503, u"Offline speech recognition supports English only; configure a speech "
                     u"vendor for "_s
                         + languageName(language) + u"."_s);
    }
    const auto origin = builtInOrigin(request);
    if (!origin)
        return HttpResponse::error(400, u"The request names no host"_s);
    return granted(*origin);
}

std::optional<QString> SpeechTokens::builtInOrigin(const HttpRequest& request) const
{
    // The listen socket is on this server: the origin the program reached it at, as ws or wss.
    if (!m_config.publicOrigin.isEmpty()) {
        QUrl url(m_config.publicOrigin);
        url.setScheme(url.scheme() == u"https"_s ? u"wss"_s : u"ws"_s);
        return url.toString();
    }
    const auto host = request.header("Host");
    if (host.isEmpty())
        return std::nullopt;
    return u"ws://"_s + QString::fromLatin1(host);
}

void SpeechTokens::attach([[maybe_unused]] HttpServer& server, [[maybe_unused]] QObject* owner)
{
#ifdef RAVLET_OFFLINE_SPEECH
    if (m_usesBuiltIn)
        ListenChannel::attach(server, m_accounts, m_clock, owner, m_config.quotas.listenSockets);
#endif
}
