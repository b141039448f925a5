#include "render/languageprofile.h"

#include <QHash>

namespace {

struct Profiles
{
    LanguageProfile generic{{}, {}, true, true, true};
    QHash<QString, const LanguageProfile *> byName;
    QList<LanguageProfile> all;
};

QStringList words(QLatin1StringView list)
{
    QStringList result;
    for (const QLatin1StringView word : list.tokenize(QLatin1Char(' '), Qt::SkipEmptyParts))
        result.append(QString(word));
    return result;
}

const Profiles &profiles()
{
    static const Profiles table = [] {
        Profiles p;
        struct Entry
        {
            const char *names;
            const char *keywords;
            const char *types;
            bool slash, hash, backtick;
        };
        // The word lists keep their order: it is the order of the alternation in the pattern.
        static const Entry entries[] = {
            {"swift",
             "func let var if else guard return for while in switch case default struct class enum protocol "
             "extension import self init throws try await async public private internal static nil true false "
             "some where as is",
             "String Int Double Bool Array Dictionary Optional View Color Text", true, false, false},
            {"python py",
             "def class if elif else return for while in import from as try except finally with lambda yield "
             "pass break continue and or not None True False self async await",
             "", false, true, false},
            {"javascript js typescript ts jsx tsx",
             "function const let var if else return for while of in switch case default class extends new "
             "import export from try catch finally throw await async yield this null undefined true false "
             "typeof instanceof",
             "", true, false, true},
            {"go golang",
             "func var const if else return for range switch case default type struct interface import "
             "package go defer chan map nil true false",
             "string int int64 float64 bool error byte", true, false, true},
            {"rust rs",
             "fn let mut if else return for while loop match struct enum impl trait use pub mod self async "
             "await move true false",
             "String i32 i64 u32 u64 f64 bool Vec Option Result", true, false, false},
            {"bash sh shell zsh",
             "if then else elif fi for while do done case esac function in echo export local return", "", false, true,
             false},
            {"json", "true false null", "", false, false, false},
            {"java kotlin kt c cpp c++ csharp cs",
             "public private protected class interface void int if else return for while switch case new "
             "import package try catch finally throw static final this null true false fun val var",
             "String Int Integer Double Boolean List Map", true, false, false},
        };
        p.all.reserve(std::size(entries));
        for (const Entry &e : entries) {
            p.all.append(LanguageProfile{words(QLatin1StringView(e.keywords)), words(QLatin1StringView(e.types)),
                                         e.slash, e.hash, e.backtick});
        }
        for (qsizetype k = 0; k < p.all.size(); ++k) {
            for (const QString &name : words(QLatin1StringView(entries[k].names)))
                p.byName.insert(name, &p.all[k]);
        }
        return p;
    }();
    return table;
}

} // namespace

const LanguageProfile &LanguageProfile::profile(const std::optional<QString> &language)
{
    const Profiles &p = profiles();
    if (!language)
        return p.generic;
    return *p.byName.value(*language, &p.generic);
}
