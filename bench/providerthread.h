#pragma once

// The mock provider on a thread of its own, so that a benchmark's main thread measures only the
// client's side of a streamed turn.

#include "mockprovider.h"
#include "model/provider.h"

#include <QThread>
#include <QUuid>

namespace Bench {

class ProviderThread final
{
public:
    explicit ProviderThread(const MockProviderOptions &options)
        : m_mock(new MockProvider)
    {
        m_mock->setOptions(options);
        m_mock->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, m_mock, &QObject::deleteLater);
        m_thread.start();
        QMetaObject::invokeMethod(
            m_mock, [this] { m_listening = m_mock->listen(); }, Qt::BlockingQueuedConnection);
        if (m_listening)
            m_baseURL = m_mock->baseURL();
    }

    ~ProviderThread()
    {
        m_thread.quit();
        m_thread.wait();
    }

    bool isListening() const { return m_listening; }

    // An OpenAI-compatible provider on the mock, with a key it accepts.
    Provider provider() const
    {
        Provider provider;
        provider.id = QUuid::createUuid();
        provider.name = QStringLiteral("Mock");
        provider.baseURL = m_baseURL;
        provider.model = QStringLiteral("mock-small");
        provider.apiKey = QStringLiteral("sk-bench");
        return provider;
    }

private:
    QThread m_thread;
    MockProvider *m_mock;
    bool m_listening = false;
    QString m_baseURL;
};

} // namespace Bench
