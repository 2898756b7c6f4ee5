#pragma once

#include "../server/ServerHarness.h"

#include "APIClient.h"
#include "AppStrings.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "JobDescriptionsViewModel.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "ResumesViewModel.h"
#include "TelemetryClient.h"
#include "UserSettings.h"

// Both document view models over the server of this process, for a user signed in with a
// real sign-in code.
struct DocumentRig {
    void signIn(const QString& email)
    {
        const auto user = std::get<UserRecord>(
            server.accounts->createAccount(email, QStringLiteral("long enough")));
        auth.setApiClient(&client);
        awaitTask(auth.exchangeCode(server.accounts->issueCode(user.id)));
    }

    ServerHarness server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
    AuthViewModel auth{tokens};
    JsonPreferencesStore preferences{server.dir.filePath(QStringLiteral("preferences.json"))};
    UserSettings settings{preferences, notifications};
    AppStrings strings{{QStringLiteral("en")}};
    ManualClock clock;
    TelemetryClient telemetry{server.base(), preferences, clock};
    ResumesViewModel resumes{auth, settings, strings, &telemetry};
    JobDescriptionsViewModel jobs{auth, settings, strings, &telemetry};
};
