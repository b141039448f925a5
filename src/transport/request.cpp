#include "transport/request.h"

QNetworkRequest HttpRequest::toNetworkRequest() const
{
    QNetworkRequest request(url);
    for (const auto &[name, value] : headers)
        request.setRawHeader(name, value);
    // Qt's default would replay our raw headers, the API key among them, to whatever host the
    // Location names.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    return request;
}

std::optional<QUrl> endpointURL(const QString &baseURL, QStringView path)
{
    QString base = baseURL.trimmed();
    if (base.isEmpty())
        return std::nullopt;
    if (base.endsWith(u'/'))
        base.chop(1);
    const QUrl url(base + path, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

QList<QPair<QByteArray, QByteArray>> authenticationHeaders(ProviderWire wire, const QString &apiKey)
{
    if (wire == ProviderWire::anthropic)
        return {{"x-api-key", apiKey.toUtf8()}, {"anthropic-version", "2023-06-01"}};
    return {{"Authorization", "Bearer " + apiKey.toUtf8()}};
}
