"""The table of a benchmark."""
from measure import Failure


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
        met = "-" if limit is None or ratio is None else "yes" if ratio <= limit else "NO"
        print(f"| {what} | {show(ours)} | {show(theirs)} | {'-' if ratio is None else f'{ratio:.2f}'} |"
              f" {'-' if limit is None else f'{limit} x'} | {met} |")
