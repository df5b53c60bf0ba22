"""Files that the editor and Blender exchange, read and written plainly."""
