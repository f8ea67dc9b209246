module Main where

import qualified Data.Map.Strict as Map
import Data.Char (toLower, isAlpha)
import Data.List (sortOn)

-- | Count how often each word occurs.
wordCounts :: String -> Map.Map String Int
wordCounts = foldr bump Map.empty . words . map normalise
  where
    normalise c = if isAlpha c then toLower c else ' '
    bump w = Map.insertWith (+) w 1

main :: IO ()
main = do
  text <- getContents
  let top = take 10 . sortOn (negate . snd) . Map.toList $ wordCounts text
  mapM_ (\(w, n) -> putStrLn (w ++ " " ++ show n)) top
