// What the key registry knows, printed to standard output for people.
#pragma once

// An annotated configuration file to start from.
void printSample();
// The manual's list of keys, in Markdown.
void printManual();
// The manual page quorvel.conf(5), for man.
void printManPage();
