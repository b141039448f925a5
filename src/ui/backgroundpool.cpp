#include "ui/backgroundpool.h"

#include <QCoreApplication>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <utility>

namespace {

QThreadPool *pool = nullptr;

void finishPool()
{
    delete std::exchange(pool, nullptr);
}

} // namespace

QThreadPool *backgroundPool()
{
    if (!pool) {
        pool = new QThreadPool;
        pool->setObjectName(QStringLiteral("background"));
        pool->setMaxThreadCount(std::max(1, QThread::idealThreadCount()));
        qAddPostRoutine(finishPool);
    }
    return pool;
}
