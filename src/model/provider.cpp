#include "model/provider.h"

#include "model/json.h"
#include "model/jsoncoding.h"

using namespace JsonCoding;

QString rawValue(ProviderWire wire)
{
    return wire == ProviderWire::anthropic ? QStringLiteral("anthropic") : QStringLiteral("openAI");
}

std::optional<ProviderWire> providerWireFromRaw(QStringView raw)
{
    if (raw == u"openAI")
        return ProviderWire::openAI;
    if (raw == u"anthropic")
        return ProviderWire::anthropic;
    return std::nullopt;
}

QString displayLabel(ProviderWire wire)
{
    return wire == ProviderWire::anthropic ? QStringLiteral("Anthropic") : QStringLiteral("OpenAI-compatible");
}

QList<ProviderWire> allProviderWires()
{
    return {ProviderWire::openAI, ProviderWire::anthropic};
}

const QList<Provider> &Provider::presets()
{
    static const QList<Provider> list = [] {
        const auto make = [](const char *name, ProviderWire wire, const char *baseURL, const char *model) {
            return Provider{QUuid::createUuid(),
                            QString::fromUtf8(name),
                            wire,
                            QString::fromUtf8(baseURL),
                            QString::fromUtf8(model),
                            {},
                            {}};
        };
        return QList<Provider>{
            make("Groq", ProviderWire::openAI, "https://api.groq.com/openai/v1", "llama-3.3-70b-versatile"),
            make("OpenAI", ProviderWire::openAI, "https://api.openai.com/v1", "gpt-4o-mini"),
            make("Anthropic", ProviderWire::anthropic, "https://api.anthropic.com/v1", "claude-3-5-sonnet-latest"),
            make("Custom (OpenAI-compatible)", ProviderWire::openAI, "", ""),
        };
    }();
    return list;
}

size_t qHash(const Provider &p, size_t seed) noexcept
{
    QtPrivate::QHashCombine combine;
    seed = combine(seed, p.id);
    seed = combine(seed, p.name);
    seed = combine(seed, rawValue(p.wire));
    seed = combine(seed, p.baseURL);
    seed = combine(seed, p.model);
    seed = combine(seed, p.cachedModels.size());
    for (const QString &m : p.cachedModels)
        seed = combine(seed, m);
    seed = combine(seed, p.apiKey);
    return combine(seed, p.proxy);
}

void toJson(Json::Writer &w, const Provider &p)
{
    w.beginObject();
    w.key(QLatin1StringView("id"));
    w.string(uuidText(p.id));
    w.key(QLatin1StringView("name"));
    w.string(p.name);
    w.key(QLatin1StringView("wire"));
    w.string(rawValue(p.wire));
    w.key(QLatin1StringView("baseURL"));
    w.string(p.baseURL);
    w.key(QLatin1StringView("model"));
    w.string(p.model);
    w.key(QLatin1StringView("cachedModels"));
    w.beginArray();
    for (const QString &m : p.cachedModels)
        w.string(m);
    w.endArray();
    w.key(QLatin1StringView("apiKey"));
    w.string(p.apiKey);
    if (!p.proxy.isEmpty()) {
        w.key(QLatin1StringView("proxy"));
        w.string(p.proxy);
    }
    w.endObject();
}

bool fromJson(const Json::Value &v, Provider &out, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the provider");
        return false;
    }
    Provider p;
    QString wire;
    if (!readUuid(v, "id", p.id, error) || !readString(v, "name", p.name, error) ||
        !readString(v, "wire", wire, error) || !readString(v, "baseURL", p.baseURL, error) ||
        !readString(v, "model", p.model, error))
        return false;
    const auto parsedWire = providerWireFromRaw(wire);
    if (!parsedWire) {
        error = QStringLiteral("\"wire\": \"%1\" is not one of openAI, anthropic").arg(wire);
        return false;
    }
    p.wire = *parsedWire;

    const Json::Value models = v["cachedModels"];
    if (models.isValid() && !models.isNull()) {
        if (!models.isArray()) {
            error = wrongType("cachedModels", "an array of strings");
            return false;
        }
        for (const Json::Value &m : models.elements()) {
            if (!m.isString()) {
                error = wrongType("cachedModels", "an array of strings");
                return false;
            }
            p.cachedModels.append(m.toString());
        }
    }
    const Json::Value key = v["apiKey"];
    if (key.isValid() && !key.isNull()) {
        if (!key.isString()) {
            error = wrongType("apiKey", "a string");
            return false;
        }
        p.apiKey = key.toString();
    }
    const Json::Value proxy = v["proxy"];
    if (proxy.isValid() && !proxy.isNull()) {
        if (!proxy.isString()) {
            error = wrongType("proxy", "a string");
            return false;
        }
        p.proxy = proxy.toString();
    }
    out = std::move(p);
    return true;
}
