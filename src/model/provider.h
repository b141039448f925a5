#pragma once

#include <QHashFunctions>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <optional>

namespace Json {
class Value;
class Writer;
} // namespace Json

// The wire dialect a provider speaks.
enum class ProviderWire { openAI, anthropic };

QString rawValue(ProviderWire wire);
// Exact, case-sensitive lookup.
std::optional<ProviderWire> providerWireFromRaw(QStringView raw);
// The label the provider editor shows ("OpenAI-compatible", "Anthropic").
QString displayLabel(ProviderWire wire);
// All dialects, in their declared order.
QList<ProviderWire> allProviderWires();
inline size_t qHash(ProviderWire wire, size_t seed = 0) noexcept
{
    return ::qHash(rawValue(wire), seed);
}

// One configured endpoint of a language-model service, copied by value.
struct Provider
{
    QUuid id;
    QString name;
    ProviderWire wire = ProviderWire::openAI;
    QString baseURL; // as the user typed it; the request builder trims and joins it
    QString model;
    QStringList cachedModels; // last fetched model list, in the order received
    QString apiKey;           // plain text; empty when not set
    // The provider's own proxy as typed ("http://host:port" or "socks5://host:port", perhaps
    // with "user:password@"); empty means the system's proxy settings.
    QString proxy = {};

    friend bool operator==(const Provider &, const Provider &) = default;

    // The four templates the settings window offers (Groq, OpenAI, Anthropic, Custom). Built
    // once per run, so their ids stay the same for the whole run; never stored.
    static const QList<Provider> &presets();
};

size_t qHash(const Provider &provider, size_t seed = 0) noexcept;

// Stored form: the seven keys always written, and "proxy" only when one is set, so that records
// without one read the same everywhere. "cachedModels", "apiKey" and "proxy" may be missing or
// null on decode; the other five are required and "wire" must be an exact raw value.
void toJson(Json::Writer &w, const Provider &provider);
bool fromJson(const Json::Value &v, Provider &out, QString &error);
