#include "dictation/DictationSession.h"
#include "dictation/TextInserter.h"
#include "services/AppConfig.h"
#include "services/CleanupService.h"
#include "services/HistoryManager.h"
#include "services/Log.h"
#include "services/RewriteService.h"
#include "ui/HUDWindowController.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QInputMethodEvent>

using namespace Qt::StringLiterals;

namespace {

// Text for one of our own windows (the first-run practice box) goes straight into
// its focused field. Asking the accessibility bus about ourselves would wait on the
// very thread that has to answer, so while one of our windows has the focus the
// system inserter is never used. Without a text field there the text goes nowhere
// but the history (written before the insertion): the clipboard is the user's, and
// nothing would paste it back.
bool insertIntoOwnWindow(const QString& text)
{
    if (!QGuiApplication::focusWindow())
        return false;
    QObject* field = QGuiApplication::focusObject();
    QInputMethodQueryEvent query(Qt::ImEnabled);
    if (field)
        QCoreApplication::sendEvent(field, &query);
    if (!field || !query.value(Qt::ImEnabled).toBool()) {
        Log::write(Log::Symbol::Warning,
            u"Quillet's own window has the focus but no text field: the text is only in the history"_s);
        return true;
    }
    QInputMethodEvent commit;
    commit.setCommitString(text);
    QCoreApplication::sendEvent(field, &commit);
    Log::write(Log::Symbol::Insertion, u"inserted into Quillet's own window"_s);
    return true;
}

} // namespace

DictationEnvironment DictationEnvironment::system()
{
    DictationEnvironment environment;
    environment.makeStream = [] { return std::make_unique<TranscriptionService>(); };
    environment.makeCapture = [] { return std::make_unique<AudioCaptureManager>(); };
    environment.makeHUD = [] { return std::make_unique<HUDWindowController>(); };
    environment.cleanup = [](const QString& text) { return CleanupService::shared().cleanup(text); };
    environment.rewrite = [](const QString& text, Tone tone) { return RewriteService::shared().rewrite(text, tone); };
    environment.addToHistory = [](const QString& text) { HistoryManager::shared().add(text); };
    environment.insert = [](const QString& text) {
        if (insertIntoOwnWindow(text))
            return InsertionResult::inserted;
        return TextInserter::shared().insert(text);
    };
    environment.apiBaseURL = [] { return AppConfig::apiBaseURL(); };
    return environment;
}
