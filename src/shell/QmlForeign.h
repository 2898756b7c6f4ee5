#pragma once

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewViewModel.h"
#include "UpdateService.h"
#include "UserSettings.h"

#include <QtQml/qqml.h>

// The lower layers' objects as the windows see them; they are made in C++ and handed over.

struct ForeignAppStrings {
    Q_GADGET
    QML_FOREIGN(AppStrings)
    QML_NAMED_ELEMENT(AppStrings)
    QML_UNCREATABLE("made by the program")
};

struct ForeignAuthViewModel {
    Q_GADGET
    QML_FOREIGN(AuthViewModel)
    QML_NAMED_ELEMENT(AuthViewModel)
    QML_UNCREATABLE("made by the program")
};

struct ForeignInterviewViewModel {
    Q_GADGET
    QML_FOREIGN(InterviewViewModel)
    QML_NAMED_ELEMENT(InterviewViewModel)
    QML_UNCREATABLE("made by the program")
};

struct ForeignUserSettings {
    Q_GADGET
    QML_FOREIGN(UserSettings)
    QML_NAMED_ELEMENT(UserSettings)
    QML_UNCREATABLE("made by the program")
};

struct ForeignUpdateService {
    Q_GADGET
    QML_FOREIGN(UpdateService)
    QML_NAMED_ELEMENT(UpdateService)
    QML_UNCREATABLE("made by the program")
};
