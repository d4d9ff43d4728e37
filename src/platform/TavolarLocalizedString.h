#pragma once
// Localisation: English text is the key. The default table answers the key itself; a host may
// install a translation table (gettext-ready: the comment is the translator's context).

#include <string>
#include <string_view>

namespace tavolar {

std::string TavolarLocalizedString(std::string_view text, std::string_view comment = {});

} // namespace tavolar
