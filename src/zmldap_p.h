// directory private classes: to be written
