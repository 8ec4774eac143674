#include "vision/client/api_error.hpp"

#include <cassert>

namespace vision {

void throw_status_error(const std::string& message, APIStatusError::Details details) {
  const int status = details.status;
  switch (status) {
    case 400: throw BadRequestError(message, std::move(details));
    case 401: throw AuthenticationError(message, std::move(details));
    case 403: throw PermissionDeniedError(message, std::move(details));
    case 404: throw NotFoundError(message, std::move(details));
    case 409: throw ConflictError(message, std::move(details));
    case 413: throw RequestTooLargeError(message, std::move(details));
    case 422: throw UnprocessableEntityError(message, std::move(details));
    case 429: throw RateLimitError(message, std::move(details));
    default: break;
  }
  if (status >= 500) throw InternalServerError(message, std::move(details));
  throw APIStatusError(message, std::move(details));
}

bool is_transport_error(const std::exception_ptr& error) noexcept {
  assert(error);
  try {
    std::rethrow_exception(error);
  } catch (const APIConnectionError&) {
    return true;
  } catch (const RateLimitError&) {
    return true;
  } catch (const InternalServerError&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace vision
