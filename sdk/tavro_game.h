/* How a game reports its session to the launcher that started it: one header, no library.

   Include it wherever you call it; in exactly one source file, define TAVRO_GAME_IMPLEMENTATION
   first:

       #define TAVRO_GAME_IMPLEMENTATION
       #include "tavro_game.h"

       int main(void) {
         tavro_game_begin();                                  // at once
         load_everything();
         tavro_game_ready();                                  // when the player can play
         tavro_game_breadcrumb("level", "entered the cave");  // what a report of a crash should
   tell run(); return tavro_game_end(0);                            // said goodbye: a clean exit
       }

   Started by hand, without a launcher, all of this does nothing, and the game runs as it is. Each
   call replaces a small file in one step; none waits for the disk. C99 or C++ on a POSIX system.
   Not for several threads at once. */
#ifndef TAVRO_GAME_H
#define TAVRO_GAME_H

/* A strict C99 compiler shows what the implementation calls only when it is asked to. */
#if defined(TAVRO_GAME_IMPLEMENTATION) && defined(__STRICT_ANSI__) && !defined(_GNU_SOURCE) && \
    !defined(_DEFAULT_SOURCE) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Of a breadcrumb this much is kept, in bytes, and of all of them the newest. */
#define TAVRO_GAME_CATEGORY_BYTES 64
#define TAVRO_GAME_MESSAGE_BYTES 512
#define TAVRO_GAME_BREADCRUMBS 64

/* Says that the game starts. Returns 1 when a launcher listens, 0 when none does. */
int tavro_game_begin(void);

/* Says that the player can play. A game whose manifest requires the SDK has to come here, else the
   launcher takes the start for a failed one. Returns 1 when it is written. */
int tavro_game_ready(void);

/* Notes what the game does. Bytes that are no UTF-8 become question marks. Returns 1 when it is
   written. */
int tavro_game_breadcrumb(const char* category, const char* message);

/* Says goodbye: the last call. Returns `exit_code`, for `return tavro_game_end(code);` in main. */
int tavro_game_end(int exit_code);

/* Folders of the player's own, which outlive the game: what to keep for ever, and what can be made
   anew, such as settings of the graphics card and caches. A null pointer without a launcher. */
const char* tavro_game_saves(void);
const char* tavro_game_state(void);

#ifdef __cplusplus
}
#endif

#endif /* TAVRO_GAME_H */

#ifdef TAVRO_GAME_IMPLEMENTATION
#ifndef TAVRO_GAME_IMPLEMENTED
#define TAVRO_GAME_IMPLEMENTED

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef struct tavro_game_crumb {
  char category[TAVRO_GAME_CATEGORY_BYTES + 1];
  char message[TAVRO_GAME_MESSAGE_BYTES + 1];
} tavro_game_crumb;

typedef struct tavro_game_session {
  const char* path;
  const char* session_id;
  const char* nonce;
  const char* game_id;
  const char* build_id;
  unsigned long long sequence;
  int listening;
  int ready;
  size_t crumbs; /* ever noted */
  tavro_game_crumb crumb[TAVRO_GAME_BREADCRUMBS];
} tavro_game_session;

static tavro_game_session tavro_game_now;

/* The length of the UTF-8 sequence at `text`, or 0 when there is none. */
static size_t tavro_game_sequence_length(const unsigned char* text) {
  const unsigned char first = text[0];
  size_t length = 0;
  size_t i;
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) length = 2;
  if (first >= 0xE0 && first <= 0xEF) length = 3;
  if (first >= 0xF0 && first <= 0xF4) length = 4;
  for (i = 1; i < length; ++i)
    if ((text[i] & 0xC0) != 0x80) return 0;
  if (first == 0xE0 && text[1] < 0xA0) return 0; /* longer than need be */
  if (first == 0xED && text[1] > 0x9F) return 0; /* half of a pair */
  if (first == 0xF0 && text[1] < 0x90) return 0;
  if (first == 0xF4 && text[1] > 0x8F) return 0; /* beyond the last character */
  return length;
}

static void tavro_game_copy(char* target, size_t bound, const char* text) {
  const unsigned char* from = (const unsigned char*)(text != NULL ? text : "");
  size_t used = 0;
  while (*from != 0) {
    const size_t length = tavro_game_sequence_length(from);
    const size_t taken = length != 0 ? length : 1;
    if (used + taken > bound) break;
    if (length != 0)
      memcpy(target + used, from, length);
    else
      target[used] = '?';
    used += taken;
    from += taken;
  }
  target[used] = 0;
}

static void tavro_game_put_text(FILE* file, const char* text) {
  fputc('"', file);
  for (; *text != 0; ++text) {
    const unsigned char byte = (unsigned char)*text;
    if (byte < 0x20)
      fprintf(file, "\\u%04x", (unsigned)byte);
    else if (byte == '"' || byte == '\\')
      fprintf(file, "\\%c", byte);
    else
      fputc(byte, file);
  }
  fputc('"', file);
}

static void tavro_game_put_member(FILE* file, const char* key, const char* text) {
  fprintf(file, "\"%s\":", key);
  tavro_game_put_text(file, text);
  fputc(',', file);
}

static void tavro_game_put_crumbs(FILE* file) {
  const size_t noted = tavro_game_now.crumbs;
  size_t at = noted > TAVRO_GAME_BREADCRUMBS ? noted - TAVRO_GAME_BREADCRUMBS : 0;
  const char* between = "";
  fputs("\"breadcrumbs\":[", file);
  for (; at < noted; ++at) {
    const tavro_game_crumb* crumb = &tavro_game_now.crumb[at % TAVRO_GAME_BREADCRUMBS];
    fprintf(file, "%s{", between);
    tavro_game_put_member(file, "category", crumb->category);
    fputs("\"message\":", file);
    tavro_game_put_text(file, crumb->message);
    fputc('}', file);
    between = ",";
  }
  fputs("],", file);
}

/* The record is written beside its place and moved there, so that no reader sees half of one. */
static int tavro_game_write(const char* state, const int* exit_code) {
  char beside[4096];
  int descriptor;
  int written;
  FILE* file;
  const int length = snprintf(beside, sizeof beside, "%s.new", tavro_game_now.path);
  if (length < 0 || (size_t)length >= sizeof beside) return 0;
  descriptor = open(beside, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (descriptor < 0) return 0;
  file = fdopen(descriptor, "wb");
  if (file == NULL) {
    close(descriptor);
    return 0;
  }
  fputs("{\"schema_version\":1,", file);
  tavro_game_put_member(file, "session_id", tavro_game_now.session_id);
  tavro_game_put_member(file, "nonce", tavro_game_now.nonce);
  tavro_game_put_member(file, "game_id", tavro_game_now.game_id);
  tavro_game_put_member(file, "build_id", tavro_game_now.build_id);
  fprintf(file, "\"pid\":%lu,\"sequence\":%llu,", (unsigned long)getpid(),
          ++tavro_game_now.sequence);
  fprintf(file, "\"ready_seen\":%s,", tavro_game_now.ready ? "true" : "false");
  tavro_game_put_crumbs(file);
  if (exit_code != NULL) fprintf(file, "\"exit_code\":%d,", *exit_code);
  fprintf(file, "\"state\":\"%s\"}", state);
  written = ferror(file) == 0;
  written = fclose(file) == 0 && written;
  if (written && rename(beside, tavro_game_now.path) == 0) return 1;
  unlink(beside);
  return 0;
}

static int tavro_game_write_now(void) {
  return tavro_game_now.listening &&
         tavro_game_write(tavro_game_now.ready ? "ready" : "starting", NULL);
}

int tavro_game_begin(void) {
  tavro_game_session* now = &tavro_game_now;
  now->path = getenv("TAVRO_GAME_SESSION");
  now->session_id = getenv("TAVRO_GAME_SESSION_ID");
  now->nonce = getenv("TAVRO_GAME_NONCE");
  now->game_id = getenv("TAVRO_GAME_ID");
  now->build_id = getenv("TAVRO_GAME_BUILD");
  now->listening = now->path != NULL && now->session_id != NULL && now->nonce != NULL &&
                   now->game_id != NULL && now->build_id != NULL;
  return tavro_game_write_now();
}

int tavro_game_ready(void) {
  tavro_game_now.ready = 1;
  return tavro_game_write_now();
}

int tavro_game_breadcrumb(const char* category, const char* message) {
  tavro_game_crumb* crumb = &tavro_game_now.crumb[tavro_game_now.crumbs % TAVRO_GAME_BREADCRUMBS];
  tavro_game_copy(crumb->category, TAVRO_GAME_CATEGORY_BYTES, category);
  tavro_game_copy(crumb->message, TAVRO_GAME_MESSAGE_BYTES, message);
  ++tavro_game_now.crumbs;
  return tavro_game_write_now();
}

int tavro_game_end(int exit_code) {
  if (tavro_game_now.listening) tavro_game_write("clean_exit", &exit_code);
  return exit_code;
}

const char* tavro_game_saves(void) { return getenv("TAVRO_GAME_SAVES"); }

const char* tavro_game_state(void) { return getenv("TAVRO_GAME_STATE"); }

#endif /* TAVRO_GAME_IMPLEMENTED */
#endif /* TAVRO_GAME_IMPLEMENTATION */
