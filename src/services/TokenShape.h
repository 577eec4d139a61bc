#pragma once

#include <QStringView>

// What a credential may look like before it is stored or sent. Tokens arrive from
// outside (a link any web page can open, a backend's reply) and end up in request
// headers, so anything but the expected shape is refused rather than passed on.
namespace TokenShape {

// The longest token of either kind we take; a real one is far shorter.
constexpr qsizetype maxLength = 8192;

// Three non-empty base64url segments joined by ".": the shape of a JSON Web Token.
bool isAccessToken(QStringView token);
// An opaque token of 8 to 8,192 characters from the URL-safe set (letters, digits and
// "-_.~+/="): nothing that could end a header line or be read as a separator.
bool isRefreshToken(QStringView token);

} // namespace TokenShape
