#include <cstdlib>

#include "examples/local_model/local_model.hpp"
#include "examples/modes/stage.hpp"

std::function<void()> stage::serve_model(boost::asio::io_context& io) {
  if (std::getenv("ANTHROPIC_API_KEY")) return [] {};
  const auto model = std::make_shared<local_model::LocalModel>(io.get_executor());
  ::setenv("ANTHROPIC_API_KEY", "any", 1);
  ::setenv("ANTHROPIC_BASE_URL", model->base_url().c_str(), 1);
  ::setenv("no_proxy", "127.0.0.1", 1);
  return [model] { model->stop(); };
}
