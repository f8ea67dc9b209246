CREATE TABLE authors (
    id INTEGER PRIMARY KEY,
    name VARCHAR(200) NOT NULL
);

CREATE TABLE books (
    id INTEGER PRIMARY KEY,
    author_id INTEGER REFERENCES authors(id),
    title VARCHAR(300) NOT NULL,
    published DATE
);

INSERT INTO authors (id, name) VALUES (1, 'Ann Example');

SELECT a.name, COUNT(b.id) AS books
FROM authors a
LEFT JOIN books b ON b.author_id = a.id
GROUP BY a.name
HAVING COUNT(b.id) > 0
ORDER BY books DESC;
