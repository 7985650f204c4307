-- A small shop to ask questions about: customers, products, orders and their lines, returns.
PRAGMA foreign_keys = ON;
BEGIN;
CREATE TABLE customers (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  email TEXT NOT NULL UNIQUE,
  city TEXT NOT NULL,
  country TEXT NOT NULL,
  joined_on DATE NOT NULL
);

CREATE TABLE products (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  category TEXT NOT NULL,
  price DECIMAL(10, 2) NOT NULL CHECK (price >= 0),
  in_stock INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE orders (
  id INTEGER PRIMARY KEY,
  customer_id INTEGER NOT NULL REFERENCES customers (id),
  ordered_on DATE NOT NULL,
  status TEXT NOT NULL CHECK (status IN ('pending', 'shipped', 'delivered', 'cancelled'))
);

-- Lines are numbered within their order; the price is the one paid, not today's.
CREATE TABLE order_items (
  order_id INTEGER NOT NULL REFERENCES orders (id),
  line_no INTEGER NOT NULL,
  product_id INTEGER NOT NULL REFERENCES products (id),
  quantity INTEGER NOT NULL CHECK (quantity > 0),
  unit_price DECIMAL(10, 2) NOT NULL,
  PRIMARY KEY (order_id, line_no)
);

CREATE TABLE order_item_returns (
  id INTEGER PRIMARY KEY,
  order_id INTEGER NOT NULL,
  line_no INTEGER NOT NULL,
  quantity INTEGER NOT NULL CHECK (quantity > 0),
  reason TEXT NOT NULL,
  returned_on DATE NOT NULL,
  FOREIGN KEY (order_id, line_no) REFERENCES order_items (order_id, line_no)
);

-- What each customer has spent on orders that were not cancelled, returns not deducted.
CREATE VIEW customer_totals AS
SELECT c.id AS customer_id, c.name, count(DISTINCT o.id) AS order_count,
       coalesce(sum(i.quantity * i.unit_price), 0) AS total_spent
FROM customers c
LEFT JOIN orders o ON o.customer_id = c.id AND o.status <> 'cancelled'
LEFT JOIN order_items i ON i.order_id = o.id
GROUP BY c.id, c.name;

INSERT INTO customers (id, name, email, city, country, joined_on) VALUES
  (1, 'Alice Martin', 'alice@example.com', 'Lyon', 'France', '2023-01-14'),
  (2, 'Bruno Keller', 'bruno@example.com', 'Zürich', 'Switzerland', '2023-02-03'),
  (3, 'Chloé Dubois', 'chloe@example.com', 'Paris', 'France', '2023-03-21'),
  (4, 'David Okafor', 'david@example.com', 'London', 'United Kingdom', '2023-04-09'),
  (5, 'Elena Rossi', 'elena@example.com', 'Milan', 'Italy', '2023-05-30'),
  (6, 'Farid Haddad', 'farid@example.com', 'Marseille', 'France', '2023-07-11'),
  (7, 'Greta Lindqvist', 'greta@example.com', 'Stockholm', 'Sweden', '2023-08-02'),
  (8, 'Hiro Tanaka', 'hiro@example.com', 'Berlin', 'Germany', '2023-09-17'),
  (9, 'Inés García', 'ines@example.com', 'Madrid', 'Spain', '2023-11-05'),
  (10, 'Jonas Weber', 'jonas@example.com', 'Munich', 'Germany', '2024-01-22'),
  (11, 'Katarzyna Nowak', 'kasia@example.com', 'Kraków', 'Poland', '2024-02-28'),
  (12, 'Liam O''Brien', 'liam@example.com', 'Dublin', 'Ireland', '2024-03-15');

INSERT INTO products (id, name, category, price, in_stock) VALUES
  (1, 'Espresso beans 1 kg', 'Coffee', 24.90, 120),
  (2, 'Filter coffee 500 g', 'Coffee', 11.50, 80),
  (3, 'Green tea 100 g', 'Tea', 7.80, 60),
  (4, 'Ceramic mug', 'Tableware', 9.00, 200),
  (5, 'Pour-over kettle', 'Equipment', 49.00, 15),
  (6, 'Hand grinder', 'Equipment', 65.00, 8),
  (7, 'Paper filters (100)', 'Accessories', 4.50, 300),
  (8, 'Gift card', 'Gifts', 25.00, 0);

INSERT INTO orders (id, customer_id, ordered_on, status) VALUES
  (1, 1, '2024-01-05', 'delivered'), (2, 2, '2024-01-09', 'delivered'),
  (3, 3, '2024-01-18', 'delivered'), (4, 1, '2024-02-02', 'delivered'),
  (5, 4, '2024-02-11', 'cancelled'), (6, 5, '2024-02-20', 'delivered'),
  (7, 6, '2024-03-01', 'delivered'), (8, 2, '2024-03-08', 'delivered'),
  (9, 7, '2024-03-15', 'delivered'), (10, 8, '2024-03-27', 'delivered'),
  (11, 9, '2024-04-04', 'delivered'), (12, 3, '2024-04-12', 'delivered'),
  (13, 10, '2024-04-25', 'shipped'), (14, 1, '2024-05-03', 'shipped'),
  (15, 11, '2024-05-09', 'shipped'), (16, 5, '2024-05-14', 'pending'),
  (17, 4, '2024-05-18', 'pending'), (18, 12, '2024-05-20', 'pending'),
  (19, 8, '2024-05-21', 'cancelled'), (20, 2, '2024-05-22', 'pending');

INSERT INTO order_items (order_id, line_no, product_id, quantity, unit_price) VALUES
  (1, 1, 1, 2, 23.90), (1, 2, 4, 2, 9.00),
  (2, 1, 5, 1, 49.00), (2, 2, 7, 3, 4.50),
  (3, 1, 3, 4, 7.80),
  (4, 1, 1, 1, 24.90), (4, 2, 6, 1, 65.00),
  (5, 1, 8, 2, 25.00),
  (6, 1, 2, 2, 11.50), (6, 2, 7, 1, 4.50), (6, 3, 4, 4, 9.00),
  (7, 1, 1, 3, 24.90),
  (8, 1, 3, 2, 7.80), (8, 2, 4, 1, 9.00),
  (9, 1, 6, 1, 65.00), (9, 2, 1, 1, 24.90),
  (10, 1, 5, 1, 49.00),
  (11, 1, 2, 3, 11.50), (11, 2, 7, 2, 4.50),
  (12, 1, 8, 1, 25.00),
  (13, 1, 1, 2, 24.90), (13, 2, 5, 1, 49.00),
  (14, 1, 3, 1, 7.80),
  (15, 1, 4, 6, 9.00), (15, 2, 2, 1, 11.50),
  (16, 1, 6, 1, 65.00),
  (17, 1, 1, 1, 24.90),
  (18, 1, 2, 2, 11.50), (18, 2, 7, 1, 4.50),
  (19, 1, 5, 1, 49.00),
  (20, 1, 1, 4, 24.90);

INSERT INTO order_item_returns (id, order_id, line_no, quantity, reason, returned_on) VALUES
  (1, 1, 2, 1, 'Arrived chipped', '2024-01-12'),
  (2, 6, 3, 2, 'Wrong colour', '2024-03-02'),
  (3, 9, 1, 1, 'Changed mind', '2024-03-25');

COMMIT;
