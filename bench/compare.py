#!/usr/bin/env python3
"""Whole commands of ours beside standard tools that make the same passes, in turn, in one run.

The first round warms the machine and is thrown away; medians and their ratios are printed and kept
as build/bench.json. Every round gets new folders and all are removed at the end, since removing a
large synced tree slows what comes next.
"""
import argparse, json

import rig
import compare_games, compare_install, compare_repository, compare_theme, compare_update

COMPARISONS = dict(repository=compare_repository, install=compare_install, update=compare_update,
                   theme=compare_theme, games=compare_games)


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--rounds", type=int, default=5)
    options.add_argument("--only", choices=COMPARISONS, help="one of the comparisons")
    options.add_argument("--megabytes", type=int, default=1000,
                         help="of the game that is installed; fewer for a quick look")
    options = options.parse_args()
    rig.game_bytes = options.megabytes * 1_000_000
    results, rows = {}, []
    for name, comparison in COMPARISONS.items():
        if options.only in (None, name):
            results[name] = comparison.measure(options.rounds)
            rows += comparison.rows(results[name])
    print(f"{'what':55} {'measured':>9} {'goal':>7}")
    for name, value, goal in rows:
        print(f"{name:55} {value:9.2f} {goal:7.2f}{'' if value <= goal else '   missed'}")
    with open("build/bench.json", "w") as out:
        json.dump(results, out, indent=1)


if __name__ == "__main__":
    main()
