#pragma once

namespace vision::detail::http {

class CurlDriver;

///@{
/// The drivers that are told when the process exits.
void add_live_driver(CurlDriver* driver);
void remove_live_driver(CurlDriver* driver) noexcept;
///@}

/// Registers the exit handler that tells them. To be called once, after OpenSSL's own
/// exit handler has been registered: of the two, the later one runs first. Throws
/// std::runtime_error when that is refused.
void watch_for_exit();

}  // namespace vision::detail::http
