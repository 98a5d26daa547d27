#include "app/config/Log.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string_view>
#include <unistd.h>

#include "app/config/LogRecorder.h"
#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "common/FixedText.h"
#include "common/Handle.h"
#include "engine/Glob.h"

namespace {

constexpr const char* kRelativeLogPath = "../log/errLog";
constexpr const char* kEarlyLogPath = "/tmp/KestrovaTmpLog";
constexpr std::size_t kPathCapacity = 600;

using Path = FixedText<kPathCapacity>;

constexpr const char* levelWord(Log::Level level) {
  switch (level) {
    case Log::Level::eInfo:
      return "INFO";
    case Log::Level::eWarning:
      return "WARNING";
    case Log::Level::eError:
      return "ERROR";
  }
  return "ERROR";
}

// Both parts fit by their capacities (255 + 13 + 255), so the result is never refused.
Path logPath() {
  Path path;
  (void)path.assign(Glob::pcKestrovaBin);
  (void)path.append(kRelativeLogPath);
  (void)path.append(pcKestrovaInstanceSuffix);
  return path;
}

// 26 bytes are what ctime_r asks for.
using CtimeText = std::array<char, 26>;

CtimeText currentTimeText() {
  CtimeText text{};
  const std::time_t now = Clock::now();
  std::unique_lock<std::mutex> lock(Glob::timeMutex, std::defer_lock);
  if (Glob::bTimeMutexExists) lock.lock();
  if (ctime_r(&now, text.data()) == nullptr) text = {"time unknown\n"};
  return text;
}

bool isHeadBehindBlank(std::string_view line) {
  for (const Log::Level level : {Log::Level::eInfo, Log::Level::eWarning, Log::Level::eError}) {
    const std::string_view word = levelWord(level);
    if (line.starts_with(word) && line.substr(word.size()).starts_with(" in ")) return true;
  }
  return false;
}

// What a stranger sends may hold a line that looks like the head of a record, and would be one to whoever
// reads the log.
void markFalseHeads(char* message) {
  for (char* line = std::strchr(message, '\n'); line != nullptr; line = std::strchr(line + 1, '\n'))
    if (line[1] == ' ' && isHeadBehindBlank(line + 2)) line[1] = '>';
}

// Anyone may put a symbolic link or a FIFO into /tmp: neither is used.
File openEarlyLog(const Path& path) {
  FileDescriptor descriptor = openRegularFile(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW);
  if (!descriptor.isOpen()) return nullptr;
  File file(fdopen(descriptor.get(), "a"));
  if (file) descriptor.release();
  return file;
}

std::atomic<long> secondsEastOfUtc{0};

// ---- What a signal handler may call: no locale, no stdio, no time zone data. ----

class HandlerText {
 public:
  void add(const char* text) {
    while (*text != '\0' && iLength < pcBytes.size()) pcBytes[iLength++] = *text++;
  }
  void addNumber(long number, int minimumWidth = 1, char filler = '0') {
    std::array<char, 20> digits{};
    std::size_t count = 0;
    const bool negative = number < 0;
    unsigned long rest =
        negative ? 0UL - static_cast<unsigned long>(number) : static_cast<unsigned long>(number);
    do {
      digits[count++] = static_cast<char>('0' + rest % 10);
      rest /= 10;
    } while (rest != 0);
    if (negative) addCharacter('-');
    for (int width = static_cast<int>(count); width < minimumWidth; ++width) addCharacter(filler);
    while (count > 0) addCharacter(digits[--count]);
  }
  const char* data() const { return pcBytes.data(); }
  std::size_t size() const { return iLength; }

 private:
  void addCharacter(char character) {
    if (iLength < pcBytes.size()) pcBytes[iLength++] = character;
  }
  std::array<char, 2600> pcBytes{};
  std::size_t iLength = 0;
};

// The text of ctime, worked out from the remembered zone. Civil date from day number: proleptic Gregorian
// calendar in eras of 400 years (146,097 days) that begin on 1 March, so that the leap day is the last day of
// its year.
void addCtime(HandlerText& out, std::time_t now) {
  static constexpr const char* kDays[] = {"Thu", "Fri", "Sat", "Sun",
                                          "Mon", "Tue", "Wed"};  // day 0 was a Thursday
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  constexpr long kSecondsPerDay = 86400;
  constexpr long kDaysPerEra = 146097;
  constexpr long kDaysFrom0000March = 719468;  // from 0000-03-01 to 1970-01-01

  const long local = static_cast<long>(now) + secondsEastOfUtc.load(std::memory_order_relaxed);
  const long day = local / kSecondsPerDay;
  const long second = local % kSecondsPerDay;
  const long shifted = day + kDaysFrom0000March;
  const long era = shifted / kDaysPerEra;
  const long dayOfEra = shifted % kDaysPerEra;
  const long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const long monthFromMarch = (5 * dayOfYear + 2) / 153;
  const long dayOfMonth = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const long month = monthFromMarch < 10 ? monthFromMarch + 2 : monthFromMarch - 10;  // 0 = January
  const long year = yearOfEra + era * 400 + (month <= 1 ? 1 : 0);

  out.add(kDays[day % 7]);
  out.add(" ");
  out.add(kMonths[month]);
  out.add(" ");
  out.addNumber(dayOfMonth, 2, ' ');
  out.add(" ");
  out.addNumber(second / 3600, 2);
  out.add(":");
  out.addNumber(second / 60 % 60, 2);
  out.add(":");
  out.addNumber(second % 60, 2);
  out.add(" ");
  out.addNumber(year);
  out.add("\n");
}

void appendFromHandler(const HandlerText& record) {
  HandlerText path;
  path.add(Glob::pcKestrovaBin.c_str());
  path.add(kRelativeLogPath);
  path.add(pcKestrovaInstanceSuffix.c_str());
  // HandlerText is zero-filled and larger than the longest path, so the bytes end with a terminator.
  const int file = open(path.data(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0666);
  if (file < 0) return;
  [[maybe_unused]] const ssize_t written = ::write(file, record.data(), record.size());
  close(file);
}

void addHead(HandlerText& record, Log::Level level, const char* function) {
  addCtime(record, Clock::now());
  record.add(" ");
  record.add(levelWord(level));
  record.add(" in ");
  record.add(function);
  record.add(", ");
}

}  // namespace

void Log::write(Level level, const char* function, const char* format, va_list arguments) {
  std::array<char, kMaxMessageLength + 1> message;
  message[0] = '\0';
  std::vsnprintf(message.data(), message.size(), format, arguments);
  if (pLogRecorder != nullptr) return pLogRecorder(level, function, message.data());
  markFalseHeads(message.data());
  const Path path = logPath();

  std::unique_lock<std::mutex> lock(Glob::errMutex, std::defer_lock);
  if (Glob::bErrMutexExists) lock.lock();
  const File file = openFile(path.c_str(), "ae");
  if (!file) return;
  const CtimeText time = currentTimeText();
  std::fprintf(file.get(), "%s %s in %s, %s\n", time.data(), levelWord(level), function, message.data());
}

void Log::info(const char* function, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(Level::eInfo, function, format, arguments);
  va_end(arguments);
}

void Log::warning(const char* function, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(Level::eWarning, function, format, arguments);
  va_end(arguments);
}

void Log::error(const char* function, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write(Level::eError, function, format, arguments);
  va_end(arguments);
}

void Log::early(const char* function, const char* format, ...) {
  std::array<char, kMaxMessageLength + 1> message;
  message[0] = '\0';
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message.data(), message.size(), format, arguments);
  va_end(arguments);

  Path path;
  (void)path.assign(kEarlyLogPath);
  (void)path.append(pcKestrovaInstanceSuffix);
  const File file = openEarlyLog(path);
  if (!file) return;
  const CtimeText time = currentTimeText();
  std::fprintf(file.get(), "%s in %s, %s\n", time.data(), function, message.data());
}

void Log::fromSignalHandler(Level level, const char* function, const char* before, int number,
                            const char* after) {
  HandlerText record;
  addHead(record, level, function);
  record.add(before);
  record.addNumber(number);
  record.add(after);
  record.add("\n");
  appendFromHandler(record);
}

void Log::fromSignalHandler(Level level, const char* function, const char* message) {
  HandlerText record;
  addHead(record, level, function);
  record.add(message);
  record.add("\n");
  appendFromHandler(record);
}

void Log::rememberTimeZone() {
  tzset();  // ctime_r and localtime_r never look whether the zone was changed
  const std::time_t now = Clock::now();
  tm local{};
  if (localtime_r(&now, &local) != nullptr)
    secondsEastOfUtc.store(local.tm_gmtoff, std::memory_order_relaxed);
}
