#!/usr/bin/env python3
"""Plots the round trips of messaging_bench: plot_messaging.py figures.json plot.png"""
import json
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    with open(sys.argv[1]) as file:
        rows = json.load(file)["senders"]
    senders = [row["senders"] for row in rows]
    figure, axes = plt.subplots(figsize=(7, 4))
    for key, label in (("p50_ns", "p50"), ("p99_ns", "p99")):
        axes.plot(senders, [row[key] / 1000 for row in rows], marker="o", label=label)
    axes.set_yscale("log")
    axes.set_xlabel("sender threads")
    axes.set_ylabel("round trip to one queue thread, µs")
    axes.grid(True, which="both", alpha=0.3)
    axes.legend()
    figure.tight_layout()
    figure.savefig(sys.argv[2], dpi=110)


main()
