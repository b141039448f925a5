#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What the highlighter knows of one language: its keywords and type names (matched as whole,
// case-sensitive words) and which comment and string syntaxes apply.
struct LanguageProfile
{
    QStringList keywords;
    QStringList types;
    bool slashComments = false;   // "//" line comments and "/* */" block comments
    bool hashComments = false;    // "#" line comments
    bool backtickStrings = false; // strings in backticks

    // The profile for a lower-cased fence tag. Unknown tags, and no tag at all, get the generic
    // profile: no words, every comment and string syntax. The reference stays valid for the life
    // of the process; safe on any thread.
    static const LanguageProfile &profile(const std::optional<QString> &language);

    friend bool operator==(const LanguageProfile &, const LanguageProfile &) = default;
};
