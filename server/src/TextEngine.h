#pragma once

#include "Tone.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

class QObject;

// One clean-up (no tone) or rewrite (with a tone) request.
struct TextRequest {
    QString text;
    std::optional<Tone> tone;
    QStringList dictionary;
};

// The seam behind POST /cleanup and POST /rewrite. An engine answers exactly once through
// `done`, on the thread of `context`, unless `context` is destroyed first. It never fails:
// an engine that cannot reach its back end answers with something sensible instead.
class TextEngine
{
public:
    virtual ~TextEngine() = default;
    virtual QString name() const = 0;
    virtual void process(const TextRequest& request, QObject* context, std::function<void(QString)> done) = 0;
};
