(ns example.queue
  (:require [clojure.string :as str]))

(defn make-queue [] (atom clojure.lang.PersistentQueue/EMPTY))

(defn enqueue! [q x]
  (swap! q conj x))

(defn dequeue! [q]
  (let [x (peek @q)]
    (swap! q pop)
    x))

(defn -main [& args]
  (let [q (make-queue)]
    (doseq [a args] (enqueue! q a))
    (println (str/join ", " (seq @q)))))
