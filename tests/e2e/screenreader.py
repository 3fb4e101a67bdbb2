#!/usr/bin/python3
# The tests' screen reader on the accessibility bus: the first time a window has the focus it prints each showing
# node as "role | name | description" (empty ones left off), indented by depth; then each focus move.
import pyatspi

windows = []


def say(node, prefix):
    print(prefix + f"{node.getRoleName()} | {node.name} | {node.description}".rstrip(" |"), flush=True)


def read(node, depth=0):
    if node.getState().contains(pyatspi.STATE_SHOWING):
        say(node, "  " * depth)
        for child in node:
            read(child, depth + 1)


def focused(event):
    window = pyatspi.findAncestor(event.source, lambda node: node.parent.getRole() == pyatspi.ROLE_APPLICATION)
    if window not in windows:
        windows.append(window)
        read(window)
    say(event.source, "focus: ")


pyatspi.Registry.registerEventListener(focused, "focus:")
print("listening", flush=True)
pyatspi.Registry.start()
