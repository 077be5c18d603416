// How many passwords an unprivileged local user gets checked per minute
// through the set-user-ID launcher, killing it 150 ms into every try.
#ifndef QVE_BENCH_ATTACK_GUESSES_H_
#define QVE_BENCH_ATTACK_GUESSES_H_

// Guesses per minute over about 20 s, or -1 when it cannot be measured here
// (it needs root to make a set-user-ID copy of the launcher and an account).
double MeasureGuessesPerMinute();

#endif  // QVE_BENCH_ATTACK_GUESSES_H_
