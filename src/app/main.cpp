#include "APIClient.h"
#include "AppStrings.h"
#include "AudioCaptureService.h"
#include "AuthService.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "InterviewAdapters.h"
#include "InterviewViewModel.h"
#include "Log.h"
#include "NotificationCenter.h"
#include "MicrophoneService.h"
#include "PopplerPdfTextExtractor.h"
#include "PreferencesStore.h"
#include "PulseAudioRights.h"
#include "PulseMicrophoneSource.h"
#include "PulseSystemAudioSource.h"
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

    SystemClock clock;
    AudioCaptureService systemAudio([&clock] { return std::make_unique<PulseSystemAudioSource>(clock); });
    MicrophoneService microphone([&clock] { return std::make_unique<PulseMicrophoneSource>(clock); });
    SystemAudioCapture systemAudioCapture(systemAudio);
    MicrophoneCapture microphoneCapture(microphone);
    PulseAudioRights rights(clock);
    InterviewViewModel::Services services;
    services.audioCapture = &systemAudioCapture;
    services.microphone = &microphoneCapture;
    services.rights = &rights;
    services.makeRecognizer = vendorRecognizers(clock);
    services.makeTranscriptChannel = [&clock] { return std::make_shared<TranscriptUploadChannel>(clock); };
    InterviewViewModel interview(clock, settings, strings, std::move(services));
    interview.setBackend(std::make_shared<APIClientInterviewBackend>(api));

    logLine(u"App", u"RavletAI "_s + QCoreApplication::applicationVersion() + u" started; interface language "_s
                        + strings.languageCode());
    // The windows and the tray that drive the interview are not wired yet, so there is
    // nothing to run.
    return 0;
}
