#pragma once

#include <QLatin1StringView>
#include <QString>

// The named character references of HTML ("amp", "ngE", …), as inline Markdown decodes them.
namespace HtmlEntities {

// The text a name stands for (without '&' and ';'), or a null string when it names nothing.
QString lookup(QLatin1StringView name);

} // namespace HtmlEntities
