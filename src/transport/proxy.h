#pragma once

#include <QNetworkProxy>
#include <QString>

#include <optional>

// A provider's own proxy, as typed in the provider editor: "http://host:port" or
// "socks5://host:port", optionally with "user:password@" before the host, which is then used to
// sign in to the proxy. Surrounding blanks are ignored.
namespace ProviderProxy {

// True for the empty text (the system's proxy settings) and for a text of the form above.
bool isValid(const QString &text);

// The proxy the text names; nothing for the empty text or one that is not of the form above.
std::optional<QNetworkProxy> parse(const QString &text);

// What the user sees of a proxy: "host:port", never its user name or password.
QString hostPort(const QNetworkProxy &proxy);

// The proxy text with its password taken out, and that password (empty when it has none). The
// editor shows the first and keeps the second in a masked field, so that a password typed or
// pasted into the address is never on screen.
struct SplitPassword
{
    QString text;
    QString password;
};
SplitPassword splitPassword(const QString &text);

// The proxy text with this password put into its address; the text unchanged when the password
// is empty or the text is not a proxy address.
QString withPassword(const QString &text, const QString &password);

// The text the provider editor shows under a proxy it cannot use.
QString formatHint();

} // namespace ProviderProxy
