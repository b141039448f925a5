#include "transport/proxy.h"

#include <QUrl>

namespace ProviderProxy {

std::optional<QNetworkProxy> parse(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return std::nullopt;
    const QUrl url(trimmed, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || url.port() <= 0 || (!url.path().isEmpty() && url.path() != u"/") ||
        url.hasQuery() || url.hasFragment())
        return std::nullopt;
    QNetworkProxy::ProxyType type;
    if (url.scheme() == u"http")
        type = QNetworkProxy::HttpProxy;
    else if (url.scheme() == u"socks5")
        type = QNetworkProxy::Socks5Proxy;
    else
        return std::nullopt;
    return QNetworkProxy(type, url.host(), quint16(url.port()), url.userName(), url.password());
}

bool isValid(const QString &text)
{
    return text.trimmed().isEmpty() || parse(text).has_value();
}

QString hostPort(const QNetworkProxy &proxy)
{
    const QString host = proxy.hostName().contains(u':') ? u'[' + proxy.hostName() + u']' : proxy.hostName();
    return host + u':' + QString::number(proxy.port());
}

SplitPassword splitPassword(const QString &text)
{
    QUrl url(text.trimmed(), QUrl::StrictMode);
    if (!url.isValid() || url.password().isEmpty())
        return {text, {}};
    const QString password = url.password();
    url.setPassword({});
    return {url.toString(), password};
}

QString withPassword(const QString &text, const QString &password)
{
    if (password.isEmpty())
        return text;
    QUrl url(text.trimmed(), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return text;
    url.setPassword(password);
    return url.toString();
}

QString formatHint()
{
    return QStringLiteral("Enter the proxy as http://host:port or socks5://host:port, or leave it empty to use the "
                          "system's proxy settings.");
}

} // namespace ProviderProxy
