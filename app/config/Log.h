// The log: one text file that every thread appends to, KESTROVA_BIN + "../log/errLog" + instance suffix. It
// is opened and closed for every record, so that an outside tool may move or delete it at any time. A record
// that cannot be written is lost silently.
//
// A record is
//     Sun Nov 22 22:10:19 2026        the local time as ctime gives it, with its line feed
//      ERROR in MySip::sendSipMsg, <message>
// and, since nearly every message ends with a line feed of its own, an empty line. Messages may hold what
// strangers sent, whole lines included; only a head begins with a blank, a level and " in ", though: a line
// of a message that does is written with ">" in place of the blank.
#pragma once

#include <cstdarg>

class Log {
 public:
  // Longest message in characters; longer ones are cut.
  static constexpr int kMaxMessageLength = 1999;

  // Appends one record in one piece. `function` is "Class::method" or the name of a free function. Any
  // thread; not from signal handlers.
  [[gnu::format(printf, 2, 3)]] static void info(const char* function, const char* format, ...);
  [[gnu::format(printf, 2, 3)]] static void warning(const char* function, const char* format, ...);
  [[gnu::format(printf, 2, 3)]] static void error(const char* function, const char* format, ...);

  // The early log, "/tmp/KestrovaTmpLog" + instance suffix, for the time before the installation directory is
  // known. Its records carry no level word.
  [[gnu::format(printf, 2, 3)]] static void early(const char* function, const char* format, ...);

  enum class Level { eInfo, eWarning, eError };

  // The same record for signal handlers: takes no mutex, allocates nothing and calls only what a handler may
  // call, so it cannot block on a mutex that the interrupted code holds. The message is `before`, the decimal
  // `number`, and `after`; without a number, call the shorter form. The record is appended by a single write.
  static void fromSignalHandler(Level level, const char* function, const char* before, int number,
                                const char* after);
  static void fromSignalHandler(Level level, const char* function, const char* message);

  // Signal handlers cannot ask for the time zone. The main thread remembers it for them, at start-up and once
  // a second.
  static void rememberTimeZone();

 private:
  static void write(Level level, const char* function, const char* format, va_list arguments);
};
