// What is compiled into libvision_c.so instead of linked, so that a package of another
// language that holds the library needs few others: Boost.JSON, fmt and spdlog, each from
// the sources that it installs for this purpose.
#include <fmt/format-inl.h>

#include <boost/json/src.hpp>

#include <spdlog/common-inl.h>
#include <spdlog/details/backtracer-inl.h>
#include <spdlog/details/log_msg-inl.h>
#include <spdlog/details/log_msg_buffer-inl.h>
#include <spdlog/details/os-inl.h>
#include <spdlog/details/periodic_worker-inl.h>
#include <spdlog/details/registry-inl.h>
#include <spdlog/logger-inl.h>
#include <spdlog/pattern_formatter-inl.h>
#include <spdlog/sinks/ansicolor_sink-inl.h>
#include <spdlog/sinks/base_sink-inl.h>
#include <spdlog/sinks/sink-inl.h>
#include <spdlog/spdlog-inl.h>

#include <mutex>

template fmt::detail::thousands_sep_result<char> fmt::detail::thousands_sep_impl<char>(fmt::detail::locale_ref);
template char fmt::detail::decimal_point_impl<char>(fmt::detail::locale_ref);
template class spdlog::sinks::base_sink<std::mutex>;
template class spdlog::sinks::ansicolor_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::ansicolor_stdout_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::ansicolor_stderr_sink<spdlog::details::console_mutex>;
