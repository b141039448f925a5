#include "transport/modelsfetch.h"

#include "model/json.h"
#include "transport/modelsservice.h"
#include "transport/networkaccess.h"

#include <QNetworkReply>
#include <QStringDecoder>
#include <QTimer>

#include <algorithm>

ModelsFetch::ModelsFetch(QObject *parent)
    : QObject(parent)
{}

ModelsFetch::~ModelsFetch()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
}

ModelsFetch *ModelsService::fetchModels(const Provider &provider, QObject *consumer) const
{
    auto *fetch = new ModelsFetch;
    if (consumer)
        QObject::connect(consumer, &QObject::destroyed, fetch, &ModelsFetch::abandon);
    const int timeoutMs = int(m_transferTimeout.count());
    QTimer::singleShot(0, fetch, [fetch, provider, timeoutMs] { fetch->start(provider, timeoutMs); });
    return fetch;
}

std::variant<HttpRequest, ChatServiceError> ModelsService::makeRequest(const Provider &provider)
{
    if (provider.apiKey.isEmpty())
        return ChatServiceError::missingAPIKey();
    const auto url = endpointURL(provider.baseURL, u"/models");
    if (!url)
        return ChatServiceError::invalidBaseURL();
    HttpRequest request;
    request.url = *url;
    request.method = "GET";
    request.headers = authenticationHeaders(provider.wire, provider.apiKey);
    return request;
}

std::variant<QStringList, ChatServiceError> ModelsService::parseResponse(int status, const QByteArray &body)
{
    if (status < 200 || status > 299) {
        // Undecodable bytes give the empty text rather than replacement characters.
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder.decode(body);
        if (decoder.hasError())
            text.clear();
        return ChatServiceError::http(status, text);
    }

    const ChatServiceError shape = ChatServiceError::decoding(QStringLiteral("Unexpected /models response shape"));
    Json::Parser parser;
    const Json::Value root = parser.parse(body);
    if (!root.isObject())
        return shape;
    const Json::Value data = root["data"];
    QStringList ids;
    const bool allObjects = data.forEachElement([&](const Json::Value &element) {
        if (!element.isObject())
            return false;
        const Json::Value id = element["id"];
        if (id.isString())
            ids.append(id.toString());
        return true;
    });
    if (!allObjects)
        return shape;
    // QString's operator< compares UTF-16 units; for code points above the BMP that can differ
    // from code-point order, so compare the UTF-32 forms.
    std::stable_sort(ids.begin(), ids.end(),
                     [](const QString &a, const QString &b) { return a.toUcs4() < b.toUcs4(); });
    return ids;
}

void ModelsFetch::start(const Provider &provider, int transferTimeoutMs)
{
    if (m_finished)
        return;
    auto built = ModelsService::makeRequest(provider);
    if (auto *failure = std::get_if<ChatServiceError>(&built)) {
        end(ServiceError(*failure), false);
        return;
    }
    HttpRequest request = std::get<HttpRequest>(std::move(built));
    request.timeoutMs = transferTimeoutMs;
    m_reply = NetworkAccess::send(request);
    connect(m_reply, &QNetworkReply::finished, this, &ModelsFetch::handleReplyFinished);
}

void ModelsFetch::handleReplyFinished()
{
    if (m_finished || !m_reply)
        return;
    QNetworkReply &reply = *m_reply;
    switch (NetworkAccess::replyKind(reply)) {
    case NetworkAccess::ReplyKind::http:
        break;
    case NetworkAccess::ReplyKind::notHTTP:
        end(ServiceError(ChatServiceError::notHTTP()), false);
        return;
    case NetworkAccess::ReplyKind::unsupported:
        end(ServiceError(NetworkAccess::transferError(reply)), false);
        return;
    }
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    // A 4xx or 5xx is an answer, not a failed transfer, even though Qt flags it as an error.
    if (!status.isValid() ||
        (reply.error() != QNetworkReply::NoError && reply.error() < QNetworkReply::ContentAccessDenied)) {
        end(ServiceError(NetworkAccess::transferError(reply)), false);
        return;
    }
    auto parsed = ModelsService::parseResponse(status.toInt(), reply.readAll());
    if (auto *failure = std::get_if<ChatServiceError>(&parsed))
        end(ServiceError(*failure), false);
    else
        end(std::get<QStringList>(std::move(parsed)), false);
}

void ModelsFetch::cancel()
{
    if (m_finished || !m_reply) {
        if (!m_finished)
            end(ServiceError(
                    TransferError{QNetworkReply::OperationCanceledError, QStringLiteral("Operation canceled")}),
                true);
        return;
    }
    m_reply->disconnect(this);
    m_reply->abort();
    end(ServiceError(NetworkAccess::transferError(*m_reply)), true);
}

void ModelsFetch::end(Result result, bool deferred)
{
    if (m_finished)
        return;
    m_finished = true;
    NetworkAccess::discard(m_reply, this);
    const auto emitFinished = [this, result = std::move(result)] {
        emit finished(result);
        deleteLater();
    };
    if (deferred)
        QTimer::singleShot(0, this, emitFinished);
    else
        emitFinished();
}

void ModelsFetch::abandon()
{
    if (m_finished)
        return;
    m_finished = true;
    NetworkAccess::discard(m_reply, this);
    deleteLater();
}
