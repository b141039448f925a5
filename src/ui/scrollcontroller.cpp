#include "ui/scrollcontroller.h"

#include <QAbstractSlider>
#include <QEasingCurve>
#include <QTimer>
#include <QVariantAnimation>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

qint64 monotonicMsecs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

ScrollController::ScrollController(QObject *parent)
    : QObject(parent)
    , m_debounce(new QTimer(this))
    , m_clock(monotonicMsecs)
    , m_followTimer(new QTimer(this))
{
    m_debounce->setSingleShot(true);
    m_followTimer->setSingleShot(true);
    m_followTimer->setInterval(followIdleStepMs);
    connect(m_followTimer, &QTimer::timeout, this, &ScrollController::stepFollow);
}

ScrollController::~ScrollController() = default;

void ScrollController::setAutoScroll(bool autoScroll)
{
    if (m_autoScroll == autoScroll)
        return;
    m_autoScroll = autoScroll;
    emit autoScrollChanged();
}

void ScrollController::setProxy(QAbstractSlider *proxy)
{
    if (m_proxy == proxy)
        return;
    stopAnimation();
    if (m_proxy)
        m_proxy->disconnect(this);
    m_proxy = proxy;
    if (!m_proxy)
        return;
    // The end of a growing reply moves while the scroll runs: the scroll follows it.
    connect(m_proxy, &QAbstractSlider::rangeChanged, this, [this](int, int max) {
        if (m_animation && m_animation->state() == QAbstractAnimation::Running)
            m_animation->setEndValue(max);
    });
}

QAbstractSlider *ScrollController::proxy() const
{
    return m_proxy;
}

qint64 ScrollController::beginContentChange()
{
    cancelDebounce();
    const qint64 token = ++m_scrollSwapToken;
    m_beginToken = token;
    setAutoScroll(true);
    // Present but never scheduled: only marks that a content change is in progress.
    m_debounceActive = true;
    return token;
}

void ScrollController::endContentChangeSoon(qint64 token)
{
    cancelDebounce();
    m_debounceActive = true;
    m_debounce->disconnect(this);
    connect(m_debounce, &QTimer::timeout, this, [this, token] {
        // A stale token leaves the newer change in progress until its own end has run.
        if (m_beginToken != token)
            return;
        m_debounceActive = false;
        m_beginToken = 0;
    });
    m_debounce->start(m_settleMs);
}

void ScrollController::scrollDidChange(bool streaming)
{
    if (m_debounceActive)
        return;
    if (m_clock() < m_programmaticScrollUntil)
        return;
    evaluate(streaming);
}

void ScrollController::userDidScroll(bool streaming)
{
    stopAnimation();
    if (m_debounceActive)
        return;
    evaluate(streaming);
}

void ScrollController::evaluate(bool streaming)
{
    bool near = true;
    if (m_viewportHeight > 0) {
        near = m_bottomOffset - m_viewportHeight <= nearThreshold;
        if (streaming) {
            // While a reply streams, scrolling can only leave the end, never return to following.
            if (!near && m_autoScroll)
                setAutoScroll(false);
            return;
        }
    } else if (streaming) {
        return;
    }
    if (m_autoScroll != near)
        setAutoScroll(near);
}

void ScrollController::scrollToBottom(bool animated)
{
    if (!m_proxy)
        return;
    const qint64 until = m_clock() + (animated ? animatedScrollWindowMs : plainScrollWindowMs);
    m_programmaticScrollUntil = std::max(m_programmaticScrollUntil, until);

    stopAnimation();
    if (!animated) {
        m_proxy->setValue(m_proxy->maximum());
        return;
    }
    // Started even at the end: the content usually grows right after, and the scroll follows it.
    if (!m_animation) {
        m_animation = new QVariantAnimation(this);
        m_animation->setDuration(scrollAnimationMs);
        m_animation->setEasingCurve(QEasingCurve::OutCubic);
        connect(m_animation, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
            if (m_proxy)
                m_proxy->setValue(value.toInt());
        });
    }
    m_animation->setStartValue(m_proxy->value());
    m_animation->setEndValue(m_proxy->maximum());
    m_animation->start();
}

void ScrollController::followGrowth()
{
    if (!m_proxy)
        return;
    const qint64 now = m_clock();
    m_programmaticScrollUntil = std::max(m_programmaticScrollUntil, now + animatedScrollWindowMs);
    if (m_animation && m_animation->state() == QAbstractAnimation::Running)
        return;
    if (!m_follow) {
        // Begins where the view is; the first step comes with the next update.
        m_follow = std::pair(m_proxy->value(), now);
        m_followTimer->start();
        return;
    }
    stepFollow();
}

void ScrollController::stepFollow()
{
    if (!m_follow || !m_proxy) {
        m_follow.reset();
        return;
    }
    const auto [from, began] = *m_follow;
    const double progress = std::clamp(double(m_clock() - began) / scrollAnimationMs, 0.0, 1.0);
    const int end = m_proxy->maximum();
    m_proxy->setValue(from +
                      int(std::lround((end - from) * QEasingCurve(QEasingCurve::OutCubic).valueForProgress(progress))));
    if (progress >= 1) {
        m_follow.reset();
        m_followTimer->stop();
    } else {
        m_followTimer->start();
    }
}

void ScrollController::conversationSwitched(qint64 token)
{
    // Two turns: the first lays out what the new conversation shows at its end, the second takes
    // the final position once that layout has settled.
    QTimer::singleShot(0, this, [this, token] {
        if (m_scrollSwapToken != token)
            return;
        scrollToBottom(false);
        QTimer::singleShot(0, this, [this, token] {
            if (m_scrollSwapToken != token)
                return;
            scrollToBottom(false);
            endContentChangeSoon(token);
        });
    });
}

void ScrollController::streamEnded()
{
    const qint64 token = beginContentChange();
    setAutoScroll(true);
    QTimer::singleShot(0, this, [this, token] {
        if (m_scrollSwapToken != token)
            return;
        scrollToBottom(true);
        endContentChangeSoon(token);
    });
}

void ScrollController::messageSent()
{
    const qint64 token = beginContentChange();
    scrollToBottom(true);
    // Ended by the send itself, so that the reply is followed while it streams.
    endContentChangeSoon(token);
}

void ScrollController::setClock(std::function<qint64()> msecsNow)
{
    m_clock = msecsNow ? std::move(msecsNow) : std::function<qint64()>(monotonicMsecs);
}

void ScrollController::setContentChangeSettleMs(int ms)
{
    m_settleMs = ms;
}

void ScrollController::cancelDebounce()
{
    m_debounce->stop();
}

void ScrollController::stopAnimation()
{
    if (m_animation)
        m_animation->stop();
    m_follow.reset();
    m_followTimer->stop();
}
