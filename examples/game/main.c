/* A game to learn from: guess a number. It keeps its best result among the player's saves, and
   tells the launcher how its session goes. */
#define TAVRO_GAME_IMPLEMENTATION
#include "tavro_game.h"

static int guesses_needed(unsigned secret, unsigned most) {
  unsigned low = 0;
  int guesses = 0;
  while (low < most) {
    const unsigned guess = low + (most - low) / 2;
    char note[64];
    ++guesses;
    snprintf(note, sizeof note, "guessed %u", guess);
    tavro_game_breadcrumb("guess", note);
    if (guess == secret) break;
    if (guess < secret)
      low = guess + 1;
    else
      most = guess;
  }
  return guesses;
}

static int keep_result(int guesses) {
  char path[4096];
  FILE* file;
  if (tavro_game_saves() == NULL) return 1;
  if (snprintf(path, sizeof path, "%s/last.txt", tavro_game_saves()) >= (int)sizeof path) return 0;
  file = fopen(path, "w");
  if (file == NULL) return 0;
  fprintf(file, "%d guesses\n", guesses);
  return fclose(file) == 0;
}

int main(int argc, char** argv) {
  const unsigned secret = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 10) % 100 : 42;
  int guesses;
  tavro_game_begin();
  tavro_game_ready();
  guesses = guesses_needed(secret, 100);
  printf("Found %u with %d guesses.\n", secret, guesses);
  if (!keep_result(guesses)) fprintf(stderr, "Could not keep the result.\n");
  if (argc > 2) abort(); /* shows what a launcher tells of a crash */
  return tavro_game_end(0);
}
