// The process's reactions to signals.
//
//   SIGINT    controlled shutdown, when MyConfiguration::allowShutdown agrees
//   SIGUSR1   writes the number of active calls to its file in /tmp
//   SIGUSR2   drain mode: new calls are refused from now on
//   SIGSEGV   logged, then the process ends with status 1
//   SIGHUP SIGQUIT SIGILL SIGTRAP SIGABRT SIGFPE SIGPIPE SIGALRM SIGTERM SIGSYS
//             logged and ignored. Where the kernel reports a fault of our own by SIGILL, SIGTRAP or SIGFPE,
//             going on would run into the same instruction for ever: the process ends with status 1.
//
// Handlers set flags, write their files and log lines with calls that are safe in a handler, and keep errno.
// They run on the main thread; media threads block all signals but those of faults.
#pragma once

// A file at the limit of its size is from now on an error of the write, not the end of the process.
void ignoreFileSizeSignal();
// Installs all handlers. Main thread, once, when the SIP engine can count its calls.
void installSignalHandlers();
