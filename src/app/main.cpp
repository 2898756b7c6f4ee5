#include "APIClient.h"
#include "AppStrings.h"
#include "AuthService.h"
#include "BuildConfig.h"
#include "Log.h"
#include "NotificationCenter.h"
#include "PopplerPdfTextExtractor.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"RavletAI"_s);
    QCoreApplication::setApplicationVersion(QString::fromUtf16(BuildConfig::version));

    JsonPreferencesStore preferences;
    UserSettings settings(preferences, NotificationCenter::defaultCenter());
    auto& strings = AppStrings::shared();
    AuthService tokens(std::make_shared<const KeychainHelper>());
    APIClient api(QString::fromUtf16(BuildConfig::backendOrigin), tokens, NotificationCenter::defaultCenter());
    PopplerPdfTextExtractor pdfText;
    api.setPdfTextExtractor(&pdfText);

    logLine(u"App", u"RavletAI "_s + QCoreApplication::applicationVersion() + u" started; interface language "_s
                        + strings.languageCode());
    // The windows, tray and interview pipeline are not wired yet, so there is nothing to run.
    return 0;
}
