"""The table of a benchmark."""
import json

from measure import Failure

_limited = {}


def limited(what, figure, limit, at_least=False):
    """Keeps a figure that has a limit. Returns "yes" if it is met, otherwise "NO"."""
    _limited[what] = (figure, limit, at_least)
    return "yes" if (figure >= limit if at_least else figure <= limit) else "NO"


def add_limited(parser):
    """The option for write_limited."""
    parser.add_argument("--limited", metavar="FILE", help="write the figures that have limits there, too")


def write_limited(options, others):
    """What was kept, and which share of the machine others used, for whole.py; nothing without the option."""
    if options.limited:
        with open(options.limited, "w", encoding="utf-8") as file:
            json.dump({"others": others.share, "figures": _limited}, file)


def decimals(figure):
    return 0 if figure == 0 or abs(figure) >= 100 else 1 if abs(figure) >= 10 else 2


def print_table(rows):
    print("| what; beside what | ours | theirs | ratio | must be | met |")
    print("|---|---:|---:|---:|---:|---|")
    for what, ours, theirs, unit, limit in rows:
        if isinstance(ours, Failure):
            print(f"| {what} | failed: {ours} | - | - | - | NO |")
            continue
        show = lambda figure: "-" if figure is None else f"{figure:.{decimals(figure)}f} {unit}".strip()
        # A difference below zero, or within noise of it, has no ratio.
        ratio = ours / theirs if theirs is not None and theirs > 0 else None
        met = "-" if limit is None or ratio is None else limited(what, ratio, limit)
        print(f"| {what} | {show(ours)} | {show(theirs)} | {'-' if ratio is None else f'{ratio:.2f}'} |"
              f" {'-' if limit is None else f'{limit} x'} | {met} |")
