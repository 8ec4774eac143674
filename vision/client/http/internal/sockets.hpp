#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <vector>

namespace vision::detail::http {

/// Whether reading from the socket returns at once: input, the end, or an error.
bool has_input(curl_socket_t fd) noexcept;

///@{
/// Of a TCP connection, also one that has ended: the bytes that it has received since it
/// began, and those taken over for sending that have not been sent once. 0 for others.
std::uint64_t received_bytes(curl_socket_t fd) noexcept;
std::uint64_t unsent_bytes(curl_socket_t fd) noexcept;
///@}

/// Ends those of the idle connections on which something came: the server has ended
/// them, or sends what nobody asked for. Their descriptors stay open.
void break_stale(const std::vector<curl_socket_t>& idle) noexcept;

///@{
/// libcurl's threads wake its loop through pairs of connected sockets, which programs
/// that the host starts would inherit. Both ends of the pair become close-on-exec: the
/// one of `end`, or the one that the new handle was made with.
void keep_pair_from_programs(curl_socket_t end) noexcept;
CURLM* make_multi() noexcept;  ///< curl_multi_init; null when that fails
///@}

}  // namespace vision::detail::http
