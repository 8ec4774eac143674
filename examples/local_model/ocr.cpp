#include "examples/local_model/ocr.hpp"

#include <allheaders.h>
#include <dlfcn.h>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cctype>
#include <mutex>
#include <vector>

#include "vision/runtime/internal/one_shot.hpp"
#include "vision/text/internal/utf8.hpp"

namespace local_model {
namespace {

namespace asio = boost::asio;

// Tesseract reads letters of 18 CSS pixels best at twice their size.
constexpr double working_width = 2560;
constexpr double largest_enlargement = 2;
// Wider than any stroke of a letter at working size, narrower than a button; odd, as
// Leptonica requires.
constexpr int stroke_window = 43;
// Below this the engine is guessing at shapes that are not letters.
constexpr double min_confidence = 0.3;
// Light letters must be clear: the same filter also turns the gaps between dark
// letters into shapes.
constexpr double min_light_confidence = 0.75;
// From here on a word needs no second reading.
constexpr double sure = 0.8;

struct PixDestroyer {
  void operator()(Pix* pix) const noexcept { pixDestroy(&pix); }
};
struct BoxDestroyer {
  void operator()(::Box* box) const noexcept { boxDestroy(&box); }
};
using PixPtr = std::unique_ptr<Pix, PixDestroyer>;

using Engine = tesseract::TessBaseAPI;

std::unique_ptr<Engine> make_engine() {
  auto engine = std::make_unique<Engine>();
  if (engine->Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) {
    throw std::runtime_error("Tesseract cannot load its English data; install the package tesseract-ocr-eng");
  }
  engine->SetVariable("debug_file", "/dev/null");
  engine->SetPageSegMode(tesseract::PSM_SPARSE_TEXT);
  return engine;
}

// Tesseract splits small loops among OpenMP threads, which makes it several times
// slower on a busy machine. The OpenMP run time has no header here, and another one
// may be linked, hence the lookup by name. Affects the calling thread only.
void switch_off_openmp() {
  using Setter = void (*)(int);
  if (const auto set = reinterpret_cast<Setter>(dlsym(RTLD_DEFAULT, "omp_set_max_active_levels"))) set(0);
}

PixPtr checked(Pix* pix) {
  if (pix == nullptr) throw BadImage("the image data cannot be decoded");
  return PixPtr(pix);
}

PixPtr decode(std::string_view bytes) {
  image_header(bytes);
  return checked(pixReadMem(reinterpret_cast<const l_uint8*>(bytes.data()), bytes.size()));
}

// Thin dark strokes, black on white, whatever the background's colour.
PixPtr dark_strokes(Pix* gray, int window) {
  const PixPtr ground = checked(pixCloseGray(gray, window, window));
  const PixPtr strokes = checked(pixSubtractGray(nullptr, ground.get(), gray));
  return checked(pixInvert(nullptr, strokes.get()));
}

// The same for thin light strokes.
PixPtr light_strokes(Pix* gray, int window) {
  const PixPtr ground = checked(pixOpenGray(gray, window, window));
  const PixPtr strokes = checked(pixSubtractGray(nullptr, gray, ground.get()));
  return checked(pixInvert(nullptr, strokes.get()));
}

// Tesseract sometimes reads buttons and faces as one or two huge letters, with high
// confidence. Real letters are at most slightly wider than they are high.
double plausibility(const Word& word) {
  std::size_t letters = 0;
  for (std::string_view rest = word.text; !rest.empty(); ++letters) {
    rest.remove_prefix(vision::text::next_code_point(rest).size);
  }
  const double letter_width = word.box.width() / static_cast<double>(letters);
  return std::min(1.0, 1.3 * word.box.height() / std::max(letter_width, 1.0));
}

// Tesseract sometimes reads a button as a single sign with high confidence: "=" for
// two edges. No instruction searches for a sign, so dropping them loses nothing.
bool has_letter_or_digit(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c >= 0x80 || std::isalnum(c); });
}

std::vector<Word> words_in(Engine& engine, Pix* pix, double scale) {
  engine.SetImage(pix);
  engine.SetSourceResolution(static_cast<int>(96 * scale));
  std::vector<Word> words;
  if (engine.Recognize(nullptr) != 0) return words;
  const std::unique_ptr<tesseract::ResultIterator> place(engine.GetIterator());
  if (!place) return words;
  do {
    const std::unique_ptr<char[]> text(place->GetUTF8Text(tesseract::RIL_WORD));
    int left = 0, top = 0, right = 0, bottom = 0;
    if (!text || !has_letter_or_digit(text.get())) continue;
    if (!place->BoundingBox(tesseract::RIL_WORD, &left, &top, &right, &bottom)) continue;
    Word word;
    word.text = text.get();
    word.box = {left / scale, top / scale, right / scale, bottom / scale};
    const double claimed = place->Confidence(tesseract::RIL_WORD) / 100.0;
    word.confidence = std::clamp(claimed, 0.0, 1.0) * plausibility(word);
    if (word.confidence >= min_confidence) words.push_back(std::move(word));
  } while (place->Next(tesseract::RIL_WORD));
  engine.Clear();
  return words;
}

bool overlap(const Box& a, const Box& b) {
  return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}

// Adds the words of a further pass. Where both passes claim a place, the earlier one
// wins unless the new one is clearly more confident.
void merge(std::vector<Word>& words, std::vector<Word> more, double least_confidence) {
  constexpr double clearly = 0.1;
  for (auto& word : more) {
    if (word.confidence < least_confidence) continue;
    const auto rival = [&word](const Word& other) { return overlap(word.box, other.box); };
    const bool beaten = std::any_of(words.begin(), words.end(), [&](const Word& other) {
      return rival(other) && other.confidence + clearly >= word.confidence;
    });
    if (beaten) continue;
    words.erase(std::remove_if(words.begin(), words.end(), rival), words.end());
    words.push_back(std::move(word));
  }
}

int window_at(double part) {
  return static_cast<int>(stroke_window * part) | 1;
}

PixPtr resized(Pix* gray, double scale) {
  return checked(pixScale(gray, static_cast<float>(scale), static_cast<float>(scale)));
}

// Paints over the words that have been read: the light shapes between dark letters
// would mislead the search for lines of light letters.
void hide(Pix* pix, const std::vector<Word>& words, double scale) {
  for (const auto& word : words) {
    if (word.confidence < sure) continue;
    const double margin = 0.4 * word.box.height();
    const auto pixels = [scale](double length) { return static_cast<l_int32>(length * scale); };
    const std::unique_ptr<::Box, BoxDestroyer> box(
        boxCreate(pixels(word.box.left - margin), pixels(word.box.top - margin), pixels(word.box.width() + 2 * margin),
                  pixels(word.box.height() + 2 * margin)));
    if (box) pixSetInRect(pix, box.get());
  }
}

// Reads dark letters, then light ones, both also at half the size, where the engine
// recognizes the few large letters that it otherwise misses.
Picture read_picture(Engine& engine, std::string_view bytes) {
  const PixPtr image = decode(bytes);
  Picture picture;
  picture.width = pixGetWidth(image.get());
  picture.height = pixGetHeight(image.get());
  const double full_scale = std::min(working_width / picture.width, largest_enlargement);
  const PixPtr gray = checked(pixConvertTo8(image.get(), 0));
  for (const double part : {1.0, 0.5}) {
    const double scale = full_scale * part;
    const PixPtr strokes = dark_strokes(resized(gray.get(), scale).get(), window_at(part));
    merge(picture.words, words_in(engine, strokes.get(), scale), min_confidence);
  }
  for (const double part : {1.0, 0.5}) {
    const double scale = full_scale * part;
    const PixPtr strokes = light_strokes(resized(gray.get(), scale).get(), window_at(part));
    hide(strokes.get(), picture.words, scale);
    merge(picture.words, words_in(engine, strokes.get(), scale), min_light_confidence);
  }
  return picture;
}

}  // namespace

ImageHeader image_header(std::string_view bytes) {
  setMsgSeverity(L_SEVERITY_NONE);  // what it would print is thrown below
  l_int32 format = IFF_UNKNOWN, width = 0, height = 0, bits = 0, samples = 0, colormap = 0;
  const bool failed = pixReadHeaderMem(reinterpret_cast<const l_uint8*>(bytes.data()), bytes.size(), &format, &width,
                                       &height, &bits, &samples, &colormap) != 0;
  ImageHeader header;
  if (format == IFF_PNG) header.media_type = "image/png";
  if (format == IFF_JFIF_JPEG) header.media_type = "image/jpeg";
  if (format == IFF_GIF) header.media_type = "image/gif";
  if (format == IFF_WEBP) header.media_type = "image/webp";
  if (failed || header.media_type.empty() || width < 1 || height < 1) throw BadImage("the data is not an image");
  header.width = width;
  header.height = height;
  return header;
}

struct Ocr::Engines {
  // Borrows an engine for one picture.
  class Loan {
   public:
    explicit Loan(Engines& owner) : owner_(owner), engine_(owner.take()) {}
    ~Loan() { owner_.give_back(std::move(engine_)); }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    Engine& operator*() const noexcept { return *engine_; }

   private:
    Engines& owner_;
    std::unique_ptr<Engine> engine_;
  };

  explicit Engines(std::size_t threads) : pool(threads) { idle.reserve(threads + 1); }

  std::unique_ptr<Engine> take() {
    const std::lock_guard lock(mutex);
    if (idle.empty()) return make_engine();
    auto engine = std::move(idle.back());
    idle.pop_back();
    return engine;
  }

  void give_back(std::unique_ptr<Engine> engine) {
    const std::lock_guard lock(mutex);
    idle.push_back(std::move(engine));
  }

  std::mutex mutex;
  std::vector<std::unique_ptr<Engine>> idle;
  asio::thread_pool pool;
};

// Owned by the thread that reads and by the coroutine that waits: whichever ends
// last destroys it.
struct Ocr::Job {
  Job(const asio::any_io_executor& executor, std::string bytes) : done(executor), image(std::move(bytes)) {}

  void run(Engines& engines) noexcept {
    try {
      switch_off_openmp();
      const Engines::Loan engine(engines);
      picture = read_picture(*engine, image);
    } catch (...) {
      error = std::current_exception();
    }
  }

  vision::runtime::OneShot done;  // touched on the event loop only
  std::string image;
  Picture picture;
  std::exception_ptr error;
};

Ocr::Ocr(std::size_t threads) : engines_(std::make_unique<Engines>(threads)) {
  engines_->give_back(make_engine());
}

Ocr::~Ocr() {
  engines_->pool.join();
}

asio::awaitable<Picture> Ocr::read(std::string image) {
  const auto executor = co_await asio::this_coro::executor;
  const auto job = std::make_shared<Job>(executor, std::move(image));
  auto work = asio::make_work_guard(executor);
  asio::post(engines_->pool, [engines = engines_.get(), job = job, work = std::move(work)]() mutable {
    job->run(*engines);
    const auto loop = work.get_executor();
    asio::post(loop, [job = std::move(job)] { job->done.set(); });
  });
  co_await job->done.wait();
  if (job->error) std::rethrow_exception(job->error);
  co_return std::move(job->picture);
}

}  // namespace local_model
