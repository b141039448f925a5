#pragma once

#include "transport/chatservice.h"
#include "transport/request.h"

#include <QByteArray>
#include <QStringList>

#include <chrono>
#include <variant>

class ModelsFetch;
class QObject;

// Asks a provider for the identifiers of its models. A cheap value; the transfer time-out (60 s)
// and the size limits are its only settings, which only tests change.
class ModelsService final
{
public:
    explicit ModelsService(std::chrono::milliseconds transferTimeout = std::chrono::seconds(60),
                           TransferLimits limits = {})
        : m_transferTimeout(transferTimeout)
        , m_limits(limits)
    {}

    // Starts the GET of the provider's model list and returns at once; the result arrives
    // through ModelsFetch::finished, never synchronously. The fetch stops silently when
    // consumer (which must not be null) is destroyed.
    ModelsFetch *fetchModels(const Provider &provider, QObject *consumer) const;

    // The model-list request: missingAPIKey for an empty key, invalidBaseURL for a blank or
    // unjoinable base URL; otherwise GET <base>/models with the dialect's key headers.
    static std::variant<HttpRequest, ChatServiceError> makeRequest(const Provider &provider);

    // Judges a whole response: a status outside 200...299 is an http error with the body as
    // UTF-8 text; a body not shaped {"data":[{"id":...},...]} is a decoding error; otherwise
    // the string ids, sorted by code point, duplicates kept.
    static std::variant<QStringList, ChatServiceError> parseResponse(int status, const QByteArray &body);

private:
    std::chrono::milliseconds m_transferTimeout;
    TransferLimits m_limits;
};
