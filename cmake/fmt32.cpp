// fmt's implementation compiled once for the 32-bit build, where the 64-bit
// Debian library cannot be linked: the header-only mode would compile it
// into every source that traces (three times the runtime's build time).
// The explicit instantiations are those fmt's own library provides for char.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {
template FMT_API auto dragonbox::to_decimal(float x) noexcept -> dragonbox::decimal_fp<float>;
template FMT_API auto dragonbox::to_decimal(double x) noexcept -> dragonbox::decimal_fp<double>;
template FMT_API locale_ref::locale_ref(const std::locale& loc);
template FMT_API auto locale_ref::get<std::locale>() const -> std::locale;
template FMT_API auto thousands_sep_impl(locale_ref) -> thousands_sep_result<char>;
template FMT_API auto decimal_point_impl(locale_ref) -> char;
template FMT_API void buffer<char>::append(const char*, const char*);
template FMT_API void vformat_to(buffer<char>&, string_view, basic_format_args<FMT_BUFFER_CONTEXT(char)>,
                                 locale_ref);
}  // namespace detail
FMT_END_NAMESPACE
