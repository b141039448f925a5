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
    NetworkAccess::discard(m_reply, this);
}

ModelsFetch *ModelsService::fetchModels(const Provider &provider, QObject *consumer) const
{
    auto *fetch = new ModelsFetch;
    if (consumer)
        QObject::connect(consumer, &QObject::destroyed, fetch, &ModelsFetch::abandon);
    const int timeoutMs = int(m_transferTimeout.count());
    QTimer::singleShot(0, fetch,
                       [fetch, provider, timeoutMs, limits = m_limits] { fetch->start(provider, timeoutMs, limits); });
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

void ModelsFetch::start(const Provider &provider, int transferTimeoutMs, TransferLimits limits)
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
    request.proxy = provider.proxy;
    m_limits = limits;
    auto sent = NetworkAccess::send(request);
    if (auto *refused = std::get_if<ServiceError>(&sent)) {
        end(*refused, false);
        return;
    }
    m_reply = std::get<QNetworkReply *>(sent);
    connect(m_reply, &QNetworkReply::readyRead, this, &ModelsFetch::handleReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &ModelsFetch::handleReplyFinished);
}

void ModelsFetch::handleReadyRead()
{
    if (m_finished || !m_reply)
        return;
    const NetworkAccess::ReplyState state = NetworkAccess::replyState(*m_reply);
    if (!state.status)
        return; // not HTTP, or no head yet: the end says which
    m_body += m_reply->readAll();
    const bool success = *state.status >= 200 && *state.status <= 299;
    if (success && m_body.size() > m_limits.modelListBytes)
        end(ServiceError(ChatServiceError::of(ChatServiceError::Kind::modelListTooLarge)), false);
    else if (!success && m_body.size() > m_limits.errorBodyBytes)
        end(ServiceError(ChatServiceError::of(ChatServiceError::Kind::bodyTooLarge, *state.status)), false);
}

void ModelsFetch::handleReplyFinished()
{
    if (m_finished || !m_reply)
        return;
    handleReadyRead();
    if (m_finished)
        return;
    const NetworkAccess::ReplyState state = NetworkAccess::replyState(*m_reply);
    if (state.failure || !state.status) {
        end(ServiceError(state.failure.value_or(ChatServiceError::notHTTP())), false);
        return;
    }
    auto parsed = ModelsService::parseResponse(*state.status, m_body);
    if (auto *failure = std::get_if<ChatServiceError>(&parsed))
        end(ServiceError(*failure), false);
    else
        end(std::get<QStringList>(std::move(parsed)), false);
}

void ModelsFetch::cancel()
{
    if (m_finished)
        return;
    NetworkAccess::discard(m_reply, this);
    end(ServiceError(NetworkAccess::cancelled()), true);
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
