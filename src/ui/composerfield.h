#pragma once

#include <QWidget>

class ComposerEditor;

// The composer's text field: a borderless multi-line editor on a rounded, outlined background,
// 1 line high when empty and growing with its text up to 6 lines, after which it scrolls.
// Return submits; Shift+Return breaks the line. Colours are read at paint time.
class ComposerField final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ComposerField)

public:
    static constexpr int minimumLines = 1;
    static constexpr int maximumLines = 6;
    static constexpr int padding = 8;
    static constexpr int cornerRadius = 8;

    explicit ComposerField(QWidget *parent = nullptr);

    ComposerEditor *editor() const { return m_editor; }
    QString text() const;
    // Replaces the text only when it differs, so the cursor stays where the user left it.
    void setText(const QString &text);
    // How many lines the field is showing now, between minimumLines and maximumLines.
    int visibleLines() const { return m_lines; }

signals:
    // Emitted when the user presses Return (without Shift), whatever the text.
    void submitted();
    // Emitted on every change of the text by the user or by setText().
    void textChanged();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void updateHeight();

    ComposerEditor *m_editor;
    int m_lines = minimumLines;
    bool m_settingText = false;
};
