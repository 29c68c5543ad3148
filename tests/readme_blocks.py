"""The README's fenced code blocks, for the tests that run them as printed."""


def readme_blocks(readme, heading, language):
    """The fenced code blocks of `language` ("" for none) in the section of
    `readme` under the line `heading`, in order."""
    with open(readme) as f:
        lines = f.read().splitlines(keepends=True)
    start = lines.index(heading + "\n")
    blocks, block, fence_language = [], None, None
    for line in lines[start + 1:]:
        if block is None and line.startswith("## "):
            break
        if block is None and line.startswith("```"):
            block, fence_language = [], line[3:].strip()
        elif block is not None and line.rstrip("\n") == "```":
            if fence_language == language:
                blocks.append("".join(block))
            block = None
        elif block is not None:
            block.append(line)
    return blocks
