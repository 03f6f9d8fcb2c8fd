#!/usr/bin/env python3
"""Makes HTML of the pages below docs/, in the same folders, with an index: docs_html.py FOLDER

Links between pages stay links, those to examples/ lead to ../examples beside FOLDER, where the Debian package has them,
and others, to sources, become plain text. A link that leads nowhere ends it with exit status 1. Needs cmark-gfm."""

import html
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
PARTS = {"guide": "Guides", "reference": "Reference", "design": "Design"}
PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>{title}</title>
<style>
body {{ max-width: 60em; margin: 2em auto; padding: 0 1em; font-family: sans-serif; line-height: 1.4 }}
pre {{ overflow-x: auto; background: #f4f4f4; padding: 0.5em }}
table {{ border-collapse: collapse }}
td, th {{ border: 1px solid #ccc; padding: 0.2em 0.5em; text-align: left; vertical-align: top }}
</style>
</head>
<body>
{body}
</body>
</html>
"""


def anchor(heading):
    """The fragment that leads to a heading, as code hosts make it."""
    text = html.unescape(re.sub(r"<[^>]*>", "", heading)).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


class Pages:
    def __init__(self):
        paths = sorted(path for part in PARTS for path in (ROOT / "docs" / part).glob("*.md"))
        self.bodies = {path: self.convert(path) for path in paths}
        self.dead = []

    @staticmethod
    def convert(path):
        command = ["cmark-gfm", "--extension", "table", str(path)]
        body = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
        return re.sub(r"<h(\d)>(.*?)</h\1>",
                      lambda found: f'<h{found[1]} id="{anchor(found[2])}">{found[2]}</h{found[1]}>', body)

    def title(self, path):
        return re.sub(r"<[^>]*>", "", re.search(r"<h1[^>]*>(.*?)</h1>", self.bodies[path])[1])

    def link(self, page, found):
        """The link as it is to be written, or its text alone."""
        target, _, fragment = found[1].partition("#")
        if ":" in target:
            return found[0]
        path = (page.parent / target).resolve() if target else page
        if not path.exists():
            self.dead.append(f"{page}: {found[1]} leads nowhere")
        if path in self.bodies:
            if fragment and f'id="{fragment}"' not in self.bodies[path]:
                self.dead.append(f"{page}: {target} has no heading {fragment}")
            name = target.removesuffix(".md") + ".html" if target else ""
            return f'<a href="{name}{"#" + fragment if fragment else ""}">{found[2]}</a>'
        if ROOT / "examples" in path.parents:
            return f'<a href="../../{path.relative_to(ROOT)}">{found[2]}</a>'
        return found[2]

    def page(self, path):
        body = re.sub(r'<a href="([^"]*)">(.*?)</a>', lambda found: self.link(path, found), self.bodies[path],
                      flags=re.DOTALL)
        return PAGE.format(title=self.title(path), body='<p><a href="../index.html">Contents</a></p>\n' + body)

    def index(self):
        body = "<h1>calvane</h1>\n"
        for part, name in PARTS.items():
            rows = [f'<li><a href="{part}/{path.stem}.html">{self.title(path)}</a></li>'
                    for path in self.bodies if path.parent.name == part]
            body += f"<h2>{name}</h2>\n<ul>\n" + "\n".join(rows) + "\n</ul>\n"
        return PAGE.format(title="calvane", body=body)


def main():
    folder, pages = pathlib.Path(sys.argv[1]), Pages()
    for path in pages.bodies:
        target = folder / path.parent.name / (path.stem + ".html")
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(pages.page(path))
    (folder / "index.html").write_text(pages.index())
    print("\n".join(pages.dead) or f"{len(pages.bodies)} pages")
    return 1 if pages.dead else 0


if __name__ == "__main__":
    sys.exit(main())
