#pragma once

#include "model/provider.h"

#include <QByteArray>
#include <QList>
#include <QNetworkRequest>
#include <QPair>
#include <QUrl>

#include <optional>

// A request ready to send: what the chat request builder and the model list service produce.
struct HttpRequest
{
    static constexpr int defaultTimeoutMs = 60000;

    QUrl url;
    QByteArray method;
    QList<QPair<QByteArray, QByteArray>> headers; // in the order they are set
    std::optional<QByteArray> body;               // absent for GET
    int timeoutMs = defaultTimeoutMs;
    QString proxy = {}; // the provider's own proxy; empty: the system's

    // The QNetworkRequest carrying exactly these headers; the time-out is kept by
    // NetworkAccess::send(), which aborts a reply quiet for timeoutMs. Redirects are never followed: a 3xx reaches the
    // caller as its own status, so the key never travels to another origin.
    QNetworkRequest toNetworkRequest() const;
};

// The endpoint for a provider's base URL: trimmed of white space and line breaks, one trailing
// "/" removed, path appended. Nothing when the base URL is blank or the result is no URL.
std::optional<QUrl> endpointURL(const QString &baseURL, QStringView path);

// The dialect's authentication headers, in order: "Authorization: Bearer <key>" for
// OpenAI-compatible providers; "x-api-key" and "anthropic-version" for Anthropic.
QList<QPair<QByteArray, QByteArray>> authenticationHeaders(ProviderWire wire, const QString &apiKey);
